#include <arm_acle.h>
#include <arm_neon.h>

#include "libtirn/crc32/chain.h"
#include "libtirn/crc32/polynomial.h"
#include "tirn/crc32.h"

namespace tirn::crc32 {
namespace {

struct Unit {
  static uint32_t step(uint32_t crc, uint64_t word) { return __crc32cd(crc, word); }
  static uint32_t step(uint32_t crc, uint32_t word) { return __crc32cw(crc, word); }
  static uint32_t step(uint32_t crc, uint16_t word) { return __crc32ch(crc, word); }
  static uint32_t step(uint32_t crc, uint8_t word) { return __crc32cb(crc, word); }
};

// A block is three parts of this many bytes, one for each chain.
constexpr unsigned kLongPart = 1360;
constexpr unsigned kShortPart = 336;
static_assert(advance_multiplier(2 * kLongPart) == 0x15F4D853E && advance_multiplier(kLongPart) == 0x13A9CBA9E);
static_assert(advance_multiplier(2 * kShortPart) == 0xCEC3662E && advance_multiplier(kShortPart) == 0x1A3E0968A);

template <unsigned kBytes>
uint32_t advance(uint32_t crc) {
  constexpr poly64_t kMultiplier = advance_multiplier(kBytes);
  return Unit::step(0, static_cast<uint64_t>(vmull_p64(crc, kMultiplier)));
}

// The instruction takes several cycles but starts in each: two words of each chain in turn keep it busy.
template <unsigned kPart, class Sink>
uint32_t take_block(uint32_t crc, const uint8_t* at, const Sink& sink) {
  uint32_t first = crc;
  uint32_t second = 0;
  uint32_t third = 0;
#pragma GCC unroll 85
  for (unsigned i = 0; i < kPart; i += 16) {
    first = step<Unit, uint64_t>(first, at + i, sink);
    second = step<Unit, uint64_t>(second, at + kPart + i, sink);
    third = step<Unit, uint64_t>(third, at + 2 * kPart + i, sink);
    first = step<Unit, uint64_t>(first, at + i + 8, sink);
    second = step<Unit, uint64_t>(second, at + kPart + i + 8, sink);
    third = step<Unit, uint64_t>(third, at + 2 * kPart + i + 8, sink);
  }
  return advance<2 * kPart>(first) ^ advance<kPart>(second) ^ third;
}

template <class Sink>
uint32_t three_chains(uint32_t crc, const uint8_t* at, int32_t length, const Sink& sink) {
  constexpr auto kLong = static_cast<int32_t>(3 * kLongPart);
  constexpr auto kShort = static_cast<int32_t>(3 * kShortPart);
  for (; length >= kLong; length -= kLong, at += kLong) {
    crc = take_block<kLongPart>(crc, at, sink);
  }
  for (; length >= kShort; length -= kShort, at += kShort) {
    crc = take_block<kShortPart>(crc, at, sink);
  }
  return length > 0 ? chain<Unit>(crc, at, static_cast<size_t>(length), sink) : crc;
}

CopyTo<Unit> copy(const void* source, void* destination) {
  return {static_cast<const uint8_t*>(source), static_cast<uint8_t*>(destination)};
}

}  // namespace
}  // namespace tirn::crc32

using namespace tirn::crc32;

uint32_t AsmCrc32c(void* /*destination*/, uint32_t length, uint32_t crc, const void* source) {
  return chain<Unit>(crc, static_cast<const uint8_t*>(source), length, Nowhere<Unit>{});
}

uint32_t AsmCrc32cWithCpy(void* destination, uint32_t length, uint32_t crc, const void* source) {
  return chain<Unit>(crc, static_cast<const uint8_t*>(source), length, copy(source, destination));
}

uint32_t Asm3Crc32c(void* /*destination*/, uint32_t length, uint32_t crc, const void* source) {
  return three_chains(crc, static_cast<const uint8_t*>(source), static_cast<int32_t>(length), Nowhere<Unit>{});
}

uint32_t Asm3Crc32cWithCpy(void* destination, uint32_t length, uint32_t crc, const void* source) {
  return three_chains(crc, static_cast<const uint8_t*>(source), static_cast<int32_t>(length),
                      copy(source, destination));
}
