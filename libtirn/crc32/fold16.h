// CRC-16/T10-DIF by folding 128-bit blocks. A block is a polynomial whose first byte in memory is the highest, so it is
// byte-reversed after loading. `Block` is a processor's 128-bit register with these operations:
//   load(bytes), constant(low, high), first(low), reversed(a), exclusive(a, b), low_half(a), low_word(a)
//   low_low(a, b), high_high(a, b)  the carry-less product of their low or their high halves
//   shuffle(a, indices)             byte i is byte indices[i], or 0 where the index has its top bit set
//   choose(a, b, indices)           bytes of b where the index has its top bit set
#ifndef TIRN_CRC32_FOLD16_H
#define TIRN_CRC32_FOLD16_H

#include "libtirn/crc32/polynomial.h"

namespace tirn::crc32 {

// A half times this is that half moved by `bits`, of a degree that leaves room in the 128-bit product. The residue
// stands in the top 16 bits of a half, or, where the distance is short, in bits 16 to 31.
constexpr uint64_t move_top(unsigned bits) { return uint64_t{power_of_x<T10Dif>(bits - 48)} << 48; }
constexpr uint64_t move_by(unsigned bits) { return uint64_t{power_of_x<T10Dif>(bits - 16)} << 16; }

static_assert(move_top(512) == 0x044C000000000000 && move_top(576) == 0xE658000000000000);
static_assert(move_by(384) == 0x1F990000 && move_by(448) == 0xAADB0000);
static_assert(move_by(256) == 0xBE6C0000 && move_by(320) == 0xD8B30000);
static_assert(move_by(128) == 0xFB0B0000 && move_by(192) == 0x4C1A0000);

// x^80 / P without its highest bit, x^64: what a Barrett step multiplies by.
constexpr uint64_t barrett_multiplier() {
  uint64_t quotient = 0;
  uint16_t remainder = T10Dif::kOne;
  for (int bit = 0; bit < 80; ++bit) {
    quotient = quotient << 1 | remainder >> 15;
    remainder = T10Dif::times_x(remainder);
  }
  return quotient;
}

// `block` moved by `bits` and added to `next`.
template <class Block>
typename Block::Register fold(typename Block::Register block, typename Block::Register multipliers,
                              typename Block::Register next) {
  return Block::exclusive(Block::exclusive(Block::low_low(block, multipliers), Block::high_high(block, multipliers)),
                          next);
}

// Rows of indices: the one at 16 - n shifts a register up by n bytes, the one at 16 + n down.
alignas(16) inline constexpr uint8_t kShifts[48] = {
    0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
    0,    1,    2,    3,    4,    5,    6,    7,    8,    9,    10,   11,   12,   13,   14,   15,
    0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80};

// The CRC of what is folded into 128 bits.
template <class Block>
uint16_t remainder(typename Block::Register block) {
  // To 96 bits, to 64, and the Barrett step: the quotient by P of these bits times x^16, and from it the remainder.
  constexpr uint64_t kTo64 = move_by(64);
  constexpr uint64_t kBarrett = barrett_multiplier();
  constexpr uint64_t kPolynomial = 0x18BB7;
  const auto to_64 = Block::constant(kTo64, kTo64);
  const auto polynomial = Block::constant(kPolynomial, kPolynomial);
  const auto bits_96 = Block::exclusive(Block::high_high(block, to_64), Block::low_half(block));
  const auto bits_64 = Block::exclusive(Block::high_high(bits_96, to_64), bits_96);
  const auto quotient = Block::low_low(bits_64, Block::constant(kBarrett, kBarrett));
  return static_cast<uint16_t>(
      Block::low_word(Block::exclusive(Block::high_high(quotient, polynomial), Block::low_low(bits_64, polynomial))));
}

// The CRC of a message that is folded into `block` as far as `at` and goes on with `rest` bytes there. Its last 16 bytes
// must be readable.
template <class Block>
uint16_t finish(typename Block::Register block, const uint8_t* at, size_t rest) {
  const auto multipliers = Block::constant(move_by(128), move_by(192));
  for (; rest >= 16; rest -= 16, at += 16) {
    block = fold<Block>(block, multipliers, Block::reversed(Block::load(at)));
  }
  if (rest != 0) {
    // The last 16 bytes of all take the place of what they overlap, and what goes out at the top is a block of its own.
    const auto last = Block::reversed(Block::load(at + rest - 16));
    const auto up = Block::load(kShifts + 16 - rest);
    const auto top = Block::shuffle(block, Block::load(kShifts + 32 - rest));
    block = fold<Block>(top, multipliers, Block::choose(Block::shuffle(block, up), last, up));
  }
  return remainder<Block>(block);
}

}  // namespace tirn::crc32

#endif
