// Both checksums over `Lanes`, a register of one or more 128-bit lanes: see lane.h. All in an unnamed namespace, so that
// each file that includes this has code of its own, compiled for its own processor.
#ifndef TIRN_CRC32_X86_64_FORMS_FOLD_H
#define TIRN_CRC32_X86_64_FORMS_FOLD_H

#include "libtirn/crc32/chain.h"
#include "libtirn/crc32/fold16.h"
#include "libtirn/crc32/x86_64/forms/forms.h"
#include "libtirn/crc32/x86_64/forms/lane.h"
#include "libtirn/crc32/x86_64/unit.h"

namespace tirn::crc32 {
namespace {

// What is folded at once: enough to hide the multiplier's latency.
inline constexpr size_t kRegisters = 4;

// Asks for what a loop reads in a while, once for each line, at its register `i`. Measured beyond the caches: a fifth
// less time for CRC-16, a tenth for CRC-32C.
template <class Lanes>
void fetch_ahead(const uint8_t* at, size_t i) {
  constexpr size_t kAhead = 2048;
  if (i * Lanes::kBytes % 64 == 0) {
    _mm_prefetch(reinterpret_cast<const char*>(at) + kAhead, _MM_HINT_T0);
  }
}

// Multipliers that move a lane by a number of bits. Reflected, its lower half holds the higher powers; a residue stands
// in the upper half of its 64 bits, and the product of two reflected values ends a bit short of its register.
struct Crc32cMove {
  template <unsigned kBits>
  static constexpr uint64_t kLow = uint64_t{power_of_x<Castagnoli>(kBits + 63)} << 32;
  template <unsigned kBits>
  static constexpr uint64_t kHigh = uint64_t{power_of_x<Castagnoli>(kBits - 1)} << 32;
};

struct Crc16Move {
  template <unsigned kBits>
  static constexpr uint64_t kLow = move_top(kBits);
  template <unsigned kBits>
  static constexpr uint64_t kHigh = move_top(kBits + 64);
};

template <class Lanes, class Move, unsigned kBits>
typename Lanes::Register multipliers() {
  return Lanes::constant(Move::template kLow<kBits>, Move::template kHigh<kBits>);
}

// Four registers as one, the last.
template <class Lanes, class Move>
typename Lanes::Register join_registers(const typename Lanes::Register (&sum)[kRegisters]) {
  constexpr unsigned kBits = 8 * Lanes::kBytes;
  auto all = Lanes::fold(sum[0], multipliers<Lanes, Move, 3 * kBits>(), sum[3]);
  all = Lanes::fold(sum[1], multipliers<Lanes, Move, 2 * kBits>(), all);
  return Lanes::fold(sum[2], multipliers<Lanes, Move, kBits>(), all);
}

// The lanes of a register as one, the last.
template <class Lanes, class Move>
__m128i join_lanes(typename Lanes::Register sum) {
  if constexpr (Lanes::kBytes == 64) {
    __m128i all =
        Lane::fold(Lanes::template lane<0>(sum), multipliers<Lane, Move, 384>(), Lanes::template lane<3>(sum));
    all = Lane::fold(Lanes::template lane<1>(sum), multipliers<Lane, Move, 256>(), all);
    return Lane::fold(Lanes::template lane<2>(sum), multipliers<Lane, Move, 128>(), all);
  } else if constexpr (Lanes::kBytes == 32) {
    return Lane::fold(Lanes::template lane<0>(sum), multipliers<Lane, Move, 128>(), Lanes::template lane<1>(sum));
  } else {
    return sum;
  }
}

template <class Lanes>
uint16_t crc16(uint16_t crc, const uint8_t* at, size_t length) {
  // The seed belongs to the message's first two bytes.
  const uint64_t seed = __builtin_bswap16(crc);
  const auto next = [&at, &length] {
    const auto block = Lanes::load(at);
    at += Lanes::kBytes;
    length -= Lanes::kBytes;
    return block;
  };
  if (length < Lanes::kBytes) {
    const __m128i block = Lane::reversed(Lane::exclusive(Lane::load(at), Lane::first(seed)));
    return finish<Lane>(block, at + Lane::kBytes, length - Lane::kBytes);
  }
  auto sum = Lanes::reversed(Lanes::exclusive(next(), Lanes::first(seed)));
  if (length >= (kRegisters - 1) * Lanes::kBytes) {
    typename Lanes::Register sums[kRegisters] = {sum};
#pragma GCC unroll 4
    for (size_t i = 1; i < kRegisters; ++i) {
      sums[i] = Lanes::reversed(next());
    }
    const auto round = multipliers<Lanes, Crc16Move, 8 * Lanes::kBytes * kRegisters>();
    while (length >= kRegisters * Lanes::kBytes) {
#pragma GCC unroll 4
      for (size_t i = 0; i < kRegisters; ++i) {
        fetch_ahead<Lanes>(at, i);
        sums[i] = Lanes::fold(sums[i], round, Lanes::reversed(next()));
      }
    }
    sum = join_registers<Lanes, Crc16Move>(sums);
  }
  if constexpr (Lanes::kBytes > Lane::kBytes) {
    while (length >= Lanes::kBytes) {
      sum = Lanes::fold(sum, multipliers<Lanes, Crc16Move, 8 * Lanes::kBytes>(), Lanes::reversed(next()));
    }
  }
  return finish<Lane>(join_lanes<Lanes, Crc16Move>(sum), at, length);
}

}  // namespace
}  // namespace tirn::crc32

#endif
