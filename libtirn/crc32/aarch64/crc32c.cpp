// Computes CRC-32C on AArch64 by the CRC instruction, in one chain or in three.
#include <arm_acle.h>
#include <arm_neon.h>

#include "libtirn/crc32/chain.h"
#include "libtirn/crc32/polynomial.h"
#include "tirn/crc32.h"

namespace tirn::crc32 {
namespace {

struct Unit {
  using Value = uint32_t;
  static uint32_t step(uint32_t crc, uint64_t word) { return __crc32cd(crc, word); }
  static uint32_t step(uint32_t crc, uint32_t word) { return __crc32cw(crc, word); }
  static uint32_t step(uint32_t crc, uint16_t word) { return __crc32ch(crc, word); }
  static uint32_t step(uint32_t crc, uint8_t word) { return __crc32cb(crc, word); }
};

// The length of a part in bytes. A block consists of three parts, one for each chain.
constexpr unsigned kLongPart = 1360;
constexpr unsigned kShortPart = 336;
static_assert(advance_multiplier(2 * kLongPart) == 0x15F4D853E && advance_multiplier(kLongPart) == 0x13A9CBA9E);
static_assert(advance_multiplier(2 * kShortPart) == 0xCEC3662E && advance_multiplier(kShortPart) == 0x1A3E0968A);

template <unsigned kBytes>
uint32_t advance(uint32_t crc) {
  constexpr poly64_t kMultiplier = advance_multiplier(kBytes);
  return Unit::step(0, static_cast<uint64_t>(vmull_p64(crc, kMultiplier)));
}

struct Chains {
  uint32_t first;
  uint32_t second;
  uint32_t third;
};

// The CRC instruction takes several cycles, but one can start in each cycle: taking words of the three chains in turn
// keeps it busy. This is assembly because the compiler would use one load for each word instead of paired loads.
#define TAKE_WORDS                        \
  "crc32cx %w[first], %w[first], %x0\n"   \
  "crc32cx %w[second], %w[second], %x2\n" \
  "crc32cx %w[third], %w[third], %x4\n"   \
  "crc32cx %w[first], %w[first], %x1\n"   \
  "crc32cx %w[second], %w[second], %x3\n" \
  "crc32cx %w[third], %w[third], %x5\n"

template <unsigned kPart>
void run(Chains& chains, const uint8_t* at, const Nowhere<Unit>& /*sink*/) {
  const uint8_t* at_second = at + kPart;
  const uint8_t* at_third = at + 2 * kPart;
  uint64_t w0, w1, w2, w3, w4, w5;
  asm volatile(
      ".rept %c[passes]\n"
      "ldp %x0, %x1, [%[at_first]], #16\n"
      "ldp %x2, %x3, [%[at_second]], #16\n"
      "ldp %x4, %x5, [%[at_third]], #16\n" TAKE_WORDS ".endr"
      : "=&r"(w0), "=&r"(w1), "=&r"(w2), "=&r"(w3), "=&r"(w4),
        "=&r"(w5), [at_first] "+r"(at), [at_second] "+r"(at_second), [at_third] "+r"(at_third),
        [first] "+r"(chains.first), [second] "+r"(chains.second), [third] "+r"(chains.third)
      : [passes] "i"(kPart / 16)
      : "memory");
}

template <unsigned kPart>
void run(Chains& chains, const uint8_t* at, const CopyTo<Unit>& sink) {
  const uint8_t* at_second = at + kPart;
  const uint8_t* at_third = at + 2 * kPart;
  uint8_t* to = sink.place(at);
  uint8_t* to_second = to + kPart;
  uint8_t* to_third = to + 2 * kPart;
  uint64_t w0, w1, w2, w3, w4, w5;
  asm volatile(
      ".rept %c[passes]\n"
      "ldp %x0, %x1, [%[at_first]], #16\n"
      "ldp %x2, %x3, [%[at_second]], #16\n"
      "ldp %x4, %x5, [%[at_third]], #16\n"
      "stp %x0, %x1, [%[to_first]], #16\n"
      "stp %x2, %x3, [%[to_second]], #16\n"
      "stp %x4, %x5, [%[to_third]], #16\n" TAKE_WORDS ".endr"
      : "=&r"(w0), "=&r"(w1), "=&r"(w2), "=&r"(w3), "=&r"(w4),
        "=&r"(w5), [at_first] "+r"(at), [at_second] "+r"(at_second), [at_third] "+r"(at_third), [to_first] "+r"(to),
        [to_second] "+r"(to_second), [to_third] "+r"(to_third), [first] "+r"(chains.first),
        [second] "+r"(chains.second), [third] "+r"(chains.third)
      : [passes] "i"(kPart / 16)
      : "memory");
}
#undef TAKE_WORDS

template <unsigned kPart, class Sink>
uint32_t take_block(uint32_t crc, const uint8_t* at, const Sink& sink) {
  Chains chains{crc, 0, 0};
  run<kPart>(chains, at, sink);
  return advance<2 * kPart>(chains.first) ^ advance<kPart>(chains.second) ^ chains.third;
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

}  // namespace
}  // namespace tirn::crc32

using namespace tirn::crc32;

uint32_t AsmCrc32c(void* /*destination*/, uint32_t length, uint32_t crc, const void* source) {
  return chain<Unit>(crc, static_cast<const uint8_t*>(source), length, Nowhere<Unit>{});
}

uint32_t AsmCrc32cWithCpy(void* destination, uint32_t length, uint32_t crc, const void* source) {
  return chain<Unit>(crc, static_cast<const uint8_t*>(source), length, CopyTo<Unit>(source, destination));
}

uint32_t Asm3Crc32c(void* /*destination*/, uint32_t length, uint32_t crc, const void* source) {
  return three_chains(crc, static_cast<const uint8_t*>(source), static_cast<int32_t>(length), Nowhere<Unit>{});
}

uint32_t Asm3Crc32cWithCpy(void* destination, uint32_t length, uint32_t crc, const void* source) {
  return three_chains(crc, static_cast<const uint8_t*>(source), static_cast<int32_t>(length),
                      CopyTo<Unit>(source, destination));
}

uint32_t kesa_crc32cContinueHard(uint32_t crc, const void* buffer, uint32_t length) {
  return AsmCrc32c(nullptr, length, crc, buffer);
}

uint32_t kesa_3crc32cContinueHard(uint32_t crc, const void* buffer, uint32_t length) {
  return Asm3Crc32c(nullptr, length, crc, buffer);
}
