// Implements the checksum functions of tirn/crc32.h that are the same on all processors, among them the table forms.
#include <atomic>

#include "libtirn/arch/arch.h"
#include "libtirn/base/log.h"
#include "libtirn/crc32/polynomial.h"
#include "tirn/crc32.h"

namespace {

using Crc = uint32_t (*)(uint32_t crc, const void* buffer, uint32_t length);
using CrcWithCopy = uint32_t (*)(void* destination, uint32_t length, uint32_t crc, const void* source);

// NULL until kesa_crc32_init has run. A pointer to a function publishes no other data, so no order is needed.
constinit std::atomic<Crc> g_crc32c{nullptr};
constinit std::atomic<CrcWithCopy> g_crc32c_with_copy{nullptr};

// Returns whether this is the one processor model on which three chains are worth their joins. No CPUID signature
// matches it, as the highest bits of a signature are 0.
bool runs_three_streams_best(uint64_t identification) {
  constexpr uint64_t kImplementer = 0x48;
  constexpr uint64_t kPart = 0xD03;
  return (identification >> 24 & 0xFF) == kImplementer && (identification >> 4 & 0xFFF) == kPart;
}

}  // namespace

void kesa_crc32_init() {
  if (runs_three_streams_best(tirn::arch::cpu_identification())) {
    g_crc32c.store(kesa_3crc32cContinueHard, std::memory_order_relaxed);
    g_crc32c_with_copy.store(Asm3Crc32cWithCpy, std::memory_order_relaxed);
    TIRN_INFO("platform support 3crc optimize, use 3crc algorithm.");
  } else {
    g_crc32c.store(kesa_crc32cContinueHard, std::memory_order_relaxed);
    g_crc32c_with_copy.store(AsmCrc32cWithCpy, std::memory_order_relaxed);
  }
}

uint32_t kesa_crc32c(const void* buffer, uint32_t length) {
  return kesa_crc32cEnd(kesa_crc32cContinue(0xFFFFFFFF, buffer, length));
}

uint32_t kesa_crc32cStart(const void* buffer, uint32_t length) {
  return kesa_crc32cContinue(0xFFFFFFFF, buffer, length);
}

uint32_t kesa_crc32cContinue(uint32_t crc, const void* buffer, uint32_t length) {
  if (buffer == nullptr || length == 0) {
    return crc;
  }
  return g_crc32c.load(std::memory_order_relaxed)(crc, buffer, length);
}

uint32_t kesa_crc32cEnd(uint32_t crc) { return ~crc; }

uint32_t kesa_crc32cContinue_with_cpy(uint32_t crc, void* destination, uint32_t length, const void* source) {
  return g_crc32c_with_copy.load(std::memory_order_relaxed)(destination, length, crc, source);
}

uint32_t kesa_crc32cContinueSoft(uint32_t crc, const void* buffer, uint32_t length) {
  const auto* byte = static_cast<const uint8_t*>(buffer);
  for (; length > 0; --length) {
    crc = crc >> 8 ^ tirn::crc32::kCrc32cTable[(crc ^ *byte++) & 0xFF];
  }
  return crc;
}

uint32_t kesa_crc32c_soft(const void* buffer, uint32_t length) {
  if (buffer == nullptr || length == 0) {
    return 0;
  }
  return ~kesa_crc32cContinueSoft(0xFFFFFFFF, buffer, length);
}

uint16_t kesa_crc16(uint16_t crc, const void* buffer, uint64_t length) {
  if (buffer == nullptr || length == 0) {
    return crc;
  }
  return crc16_t10dif(crc, buffer, length);
}

uint16_t kesa_crc16_soft(uint16_t crc, const void* buffer, uint64_t length) {
  return tirn::crc32::crc16_by_table(crc, static_cast<const uint8_t*>(buffer), length);
}
