// Implements the atomic operations on single bits of tirn/bitops.h.
#include <atomic>

#include "tirn/bitops.h"

namespace {

// Works on single bytes, because a map needs no alignment and may end at any byte. No memory order is promised.
struct BitByte {
  BitByte(uint32_t bit, void* map) : byte(static_cast<uint8_t*>(map)[bit / 8]), mask(uint8_t(1u << bit % 8)) {}
  uint8_t set() { return byte.fetch_or(mask, std::memory_order_relaxed); }
  uint8_t clear() { return byte.fetch_and(uint8_t(~mask), std::memory_order_relaxed); }

  std::atomic_ref<uint8_t> byte;
  uint8_t mask;
};

}  // namespace

uint32_t kesa_set_bit(uint32_t bit, void* map) {
  BitByte at(bit, map);
  at.set();
  return at.mask;
}

void kesa_clear_bit(uint32_t bit, void* map) { BitByte(bit, map).clear(); }

int kesa_test_and_set_bit(uint32_t bit, void* map) {
  BitByte at(bit, map);
  return (at.set() & at.mask) != 0;
}

int kesa_test_and_clear_bit(uint32_t bit, void* map) {
  BitByte at(bit, map);
  return (at.clear() & at.mask) != 0;
}
