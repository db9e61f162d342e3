// CRC-16/T10-DIF, whose polynomial is P below, by folding 128-bit blocks. A block is a polynomial whose first byte in
// memory is the highest, so it is byte-reversed after loading. `Block` describes a processor's 128-bit register by
// these operations:
//   load(bytes), constant(low, high), first(low), reversed(a), exclusive(a, b), low_word(a)
//   low_low(a, b), high_high(a, b)  the carry-less product of their low or their high halves
//   shuffle(a, indices)             byte i is byte indices[i], or 0 where the index has its top bit set
//   choose(a, b, indices)           bytes of b where the index has its top bit set
#ifndef TIRN_CRC32_FOLD16_H
#define TIRN_CRC32_FOLD16_H

#include "libtirn/crc32/polynomial.h"

namespace tirn::crc32 {

// Multipliers that move one 64-bit half of a block by `bits`. Both are congruent to x^bits, and the product fits in
// 128 bits. move_top has the 16-bit residue in the top 16 bits of the multiplier, move_by has it in bits 16 to 31.
constexpr uint64_t move_top(unsigned bits) { return uint64_t{power_of_x<T10Dif>(bits - 48)} << 48; }
constexpr uint64_t move_by(unsigned bits) { return uint64_t{power_of_x<T10Dif>(bits - 16)} << 16; }

static_assert(move_top(512) == 0x044C000000000000 && move_top(576) == 0xE658000000000000);
static_assert(move_by(384) == 0x1F990000 && move_by(448) == 0xAADB0000);
static_assert(move_by(256) == 0xBE6C0000 && move_by(320) == 0xD8B30000);
static_assert(move_by(128) == 0xFB0B0000 && move_by(192) == 0x4C1A0000);

// Returns the multiplier of a Barrett step: the quotient x^80 / P without its highest term, x^64.
constexpr uint64_t barrett_multiplier() {
  uint64_t quotient = 0;
  uint16_t remainder = T10Dif::kOne;
  for (int bit = 0; bit < 80; ++bit) {
    quotient = quotient << 1 | remainder >> 15;
    remainder = T10Dif::times_x(remainder);
  }
  return quotient;
}

// Returns whether a block of kBits can be removed by adding it to the blocks at `distances` after it. Let y be
// x^kBits and D the last distance: this is so if y^D plus the sum of y^(D - d) over all distances d is 0 modulo P.
template <unsigned kBits, size_t kCount>
constexpr bool distances_hold(const unsigned (&distances)[kCount]) {
  const unsigned last = distances[kCount - 1];
  uint16_t sum = power_of_x<T10Dif>(last * kBits);
  for (const unsigned distance : distances) {
    sum ^= power_of_x<T10Dif>((last - distance) * kBits);
  }
  return sum == 0;
}

// Removes the first kNew blocks, of Block::kBytes each, by adding them to later ones, and appends kNew blocks from
// `at`. No byte changes its place within a block, so the blocks can stay in memory order.
template <class Block, unsigned kNew, const auto& kDistances, size_t kCount>
[[gnu::always_inline]] inline void take_by_adding(typename Block::Register (&blocks)[kCount], const uint8_t* at) {
  typename Block::Register all[kCount + kNew];
#pragma GCC unroll 32
  for (unsigned i = 0; i < kCount + kNew; ++i) {
    all[i] = i < kCount ? blocks[i] : Block::load(at + Block::kBytes * (i - kCount));
  }
#pragma GCC unroll 8
  for (unsigned i = 0; i < kNew; ++i) {
#pragma GCC unroll 16
    for (const unsigned distance : kDistances) {
      all[i + distance] = Block::exclusive(all[i + distance], all[i]);
    }
  }
#pragma GCC unroll 32
  for (unsigned i = 0; i < kCount; ++i) {
    blocks[i] = all[i + kNew];
  }
}

// move() returns `block`, moved by the distance of the multipliers. fold() adds that to `next`.
template <class Block>
typename Block::Register move(typename Block::Register block, typename Block::Register multipliers) {
  return Block::exclusive(Block::low_low(block, multipliers), Block::high_high(block, multipliers));
}
template <class Block>
typename Block::Register fold(typename Block::Register block, typename Block::Register multipliers,
                              typename Block::Register next) {
  return Block::exclusive(move<Block>(block, multipliers), next);
}

// Indices for shuffle(): from kShifts + 16 - n they shift a register up by n bytes, from kShifts + 16 + n down.
alignas(16) inline constexpr uint8_t kShifts[48] = {
    0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
    0,    1,    2,    3,    4,    5,    6,    7,    8,    9,    10,   11,   12,   13,   14,   15,
    0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80};

// The distance in bits by which a folded message is moved before the last step. After that, only the upper 80 bits
// are not zero, and their remainder by P is the CRC.
constexpr unsigned kToLast = 64;

// Returns the CRC of these 80 bits by a Barrett step: computes their quotient by P, and removes its product with P
// from them.
template <class Block>
uint16_t last_step(typename Block::Register bits) {
  constexpr uint64_t kBarrett = barrett_multiplier();
  constexpr uint64_t kPolynomial = uint64_t{0x8BB7} << 48;  // x^16 does not affect the remainder
  const auto quotient = Block::exclusive(Block::high_high(bits, Block::constant(kBarrett, kBarrett)), bits);
  const auto product = Block::high_high(quotient, Block::constant(kPolynomial, kPolynomial));
  return static_cast<uint16_t>(Block::low_word(Block::exclusive(product, bits)) >> 48);
}

template <class Block>
uint16_t remainder(typename Block::Register block) {
  return last_step<Block>(move<Block>(block, Block::constant(move_top(kToLast), move_top(kToLast + 64))));
}

// Returns the CRC of a message that is folded into `block` up to `at` and has `rest` more bytes there. The last 16
// bytes of the message must be readable.
template <class Block>
uint16_t finish(typename Block::Register block, const uint8_t* at, size_t rest) {
  const auto multipliers = Block::constant(move_by(128), move_by(192));
  for (; rest >= 16; rest -= 16, at += 16) {
    block = fold<Block>(block, multipliers, Block::reversed(Block::load(at)));
  }
  if (rest != 0) {
    // Shift the block up and put the `rest` new bytes of the last 16 below it. The bytes that are shifted out at the
    // top become a block of their own, which is folded into the result.
    const auto last = Block::reversed(Block::load(at + rest - 16));
    const auto up = Block::load(kShifts + 16 - rest);
    const auto top = Block::shuffle(block, Block::load(kShifts + 32 - rest));
    block = fold<Block>(top, multipliers, Block::choose(Block::shuffle(block, up), last, up));
  }
  return remainder<Block>(block);
}

}  // namespace tirn::crc32

#endif
