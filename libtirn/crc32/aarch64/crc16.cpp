// Computes CRC-16/T10-DIF on AArch64 by carry-less multiplication.
#include <arm_neon.h>

#include "libtirn/crc32/fold16.h"
#include "tirn/crc32.h"

namespace tirn::crc32 {
namespace {

struct Block {
  using Register = uint8x16_t;
  static constexpr size_t kBytes = 16;

  static Register load(const uint8_t* bytes) { return vld1q_u8(bytes); }
  static Register constant(uint64_t low, uint64_t high) {
    return vreinterpretq_u8_u64(vcombine_u64(vcreate_u64(low), vcreate_u64(high)));
  }
  static Register first(uint64_t low) { return constant(low, 0); }
  static Register exclusive(Register a, Register b) { return veorq_u8(a, b); }
  static Register reversed(Register a) { return shuffle(a, constant(0x08090A0B0C0D0E0F, 0x0001020304050607)); }
  static uint64_t low_word(Register a) { return vgetq_lane_u64(vreinterpretq_u64_u8(a), 0); }
  static Register low_low(Register a, Register b) {
    return vreinterpretq_u8_p128(
        vmull_p64(vgetq_lane_p64(vreinterpretq_p64_u8(a), 0), vgetq_lane_p64(vreinterpretq_p64_u8(b), 0)));
  }
  static Register high_high(Register a, Register b) {
    return vreinterpretq_u8_p128(vmull_high_p64(vreinterpretq_p64_u8(a), vreinterpretq_p64_u8(b)));
  }
  static Register shuffle(Register a, Register indices) { return vqtbl1q_u8(a, indices); }
  static Register choose(Register a, Register b, Register indices) {
    return vbslq_u8(vcltzq_s8(vreinterpretq_s8_u8(indices)), b, a);
  }
};
using Register = Block::Register;

constexpr uint64_t kSector = 512;

// The distances, in blocks of 128 bits, follow from the terms of P itself, as P(x^128) = P(x)^128.
constexpr unsigned kDistances[] = {1, 5, 7, 8, 9, 11, 12, 14, 15, 16};
static_assert(distances_hold<128>(kDistances));

// Moves four lanes by 64 bytes and adds the next four blocks to them.
void fold_four(Register (&lanes)[4], const Register* next) {
  const Register multipliers = Block::constant(move_top(512), move_top(576));
#pragma GCC unroll 4
  for (unsigned i = 0; i < 4; ++i) {
    lanes[i] = fold<Block>(lanes[i], multipliers, Block::reversed(next[i]));
  }
}

void fold_four(Register (&lanes)[4], const uint8_t* at) {
  const Register next[] = {Block::load(at), Block::load(at + 16), Block::load(at + 32), Block::load(at + 48)};
  fold_four(lanes, next);
}

Register join(const Register (&lanes)[4]) {
  Register all = fold<Block>(lanes[0], Block::constant(move_by(384), move_by(448)), lanes[3]);
  all = fold<Block>(lanes[1], Block::constant(move_by(256), move_by(320)), all);
  return fold<Block>(lanes[2], Block::constant(move_by(128), move_by(192)), all);
}

uint16_t crc16_of_sector(Register first, const uint8_t* at) {
  Register lanes[] = {Block::reversed(first), Block::reversed(Block::load(at + 16)),
                      Block::reversed(Block::load(at + 32)), Block::reversed(Block::load(at + 48))};
#pragma GCC unroll 7
  for (unsigned i = 64; i < kSector; i += 64) {
    fold_four(lanes, at + i);
  }
  return remainder<Block>(join(lanes));
}

// The first kCount blocks of a message: `first`, then the blocks at `at`. `carried` is added to the second block. The
// constructor advances `at` and `rest` past the blocks.
template <unsigned kCount>
struct Blocks {
  Register block[kCount];

  Blocks(Register first, Register carried, const uint8_t*& at, uint64_t& rest) {
    block[0] = first;
#pragma GCC unroll 16
    for (unsigned i = 1; i < kCount; ++i) {
      block[i] = Block::load(at + 16 * (i - 1));
    }
    block[1] = Block::exclusive(block[1], carried);
    at += 16 * (kCount - 1);
    rest -= 16 * (kCount - 1);
  }
};

// Folds 64 bytes or more, the first 16 of which are in `first`, to one block. Takes whole groups of 64 bytes; fewer
// than 64 bytes remain.
Register fold_long(Register first, Register carried, const uint8_t*& at, uint64_t& rest) {
  Register lanes[4];
  if (rest >= 256 - 16) {
    Blocks<16> blocks(first, carried, at, rest);
    for (; rest >= 128; rest -= 128, at += 128) {
      take_by_adding<Block, 8, kDistances>(blocks.block, at);
    }
    for (unsigned i = 0; i < 4; ++i) {
      lanes[i] = Block::reversed(blocks.block[i]);
    }
#pragma GCC unroll 3
    for (unsigned i = 4; i < 16; i += 4) {
      fold_four(lanes, blocks.block + i);
    }
  } else {
    const Blocks<4> blocks(first, carried, at, rest);
    for (unsigned i = 0; i < 4; ++i) {
      lanes[i] = Block::reversed(blocks.block[i]);
    }
  }
  for (; rest >= 64; rest -= 64, at += 64) {
    fold_four(lanes, at);
  }
  return join(lanes);
}

}  // namespace
}  // namespace tirn::crc32

using namespace tirn::crc32;

uint16_t crc16_t10dif(uint16_t crc, const void* buffer, uint64_t length) {
  const auto* at = static_cast<const uint8_t*>(buffer);
  if (length <= 16) {
    return crc16_by_table(crc, at, length);
  }
  // The seed is added to the first two bytes.
  Register first = Block::exclusive(Block::load(at), Block::first(__builtin_bswap16(crc)));
  if (length == kSector) {
    return crc16_of_sector(first, at);
  }
  // Put fewer bytes in the first block, after zeros, so that all later loads are aligned.
  const uint64_t zeros = reinterpret_cast<uintptr_t>(at) % 16;
  first = Block::shuffle(first, Block::load(kShifts + 16 - zeros));
  at += 16 - zeros;
  uint64_t rest = length - (16 - zeros);
  // If only one byte stays in the first block, the seed's second byte goes into the next block. At least 16 bytes
  // follow then.
  const Register carried = Block::first(zeros == 15 ? crc & 0xFF : 0);
  if (rest >= 64 - 16) {
    return finish<Block>(fold_long(first, carried, at, rest), at, rest);
  }
  first = Block::reversed(first);
  if (zeros == 15) {
    const Register second = Block::reversed(Block::exclusive(Block::load(at), carried));
    first = fold<Block>(first, Block::constant(move_by(128), move_by(192)), second);
    at += 16;
    rest -= 16;
  }
  return finish<Block>(first, at, rest);
}
