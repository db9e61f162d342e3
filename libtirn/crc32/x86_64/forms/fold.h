// Both checksums by folding in `Lanes`, a register of one or more 128-bit lanes with the operations that lane.h
// shows. Everything is in an unnamed namespace, so that each file that includes this has code of its own, compiled
// for its own processor.
#ifndef TIRN_CRC32_X86_64_FORMS_FOLD_H
#define TIRN_CRC32_X86_64_FORMS_FOLD_H

#include <array>
#include <type_traits>

#include "libtirn/crc32/chain.h"
#include "libtirn/crc32/fold16.h"
#include "libtirn/crc32/x86_64/forms/forms.h"
#include "libtirn/crc32/x86_64/forms/lane.h"
#include "libtirn/crc32/x86_64/unit.h"

namespace tirn::crc32 {
namespace {

// The number of registers that are folded side by side: enough to hide the latency of the multiplier.
inline constexpr size_t kRegisters = 4;

template <class Lanes>
using Sums = typename Lanes::Register[kRegisters];

// Calls act(0) to act(3). This is not a loop: by the time that the compiler unrolls one, it has already placed the
// array of sums in memory.
template <class Act>
[[gnu::always_inline]] inline void each_register(const Act& act) {
  act(0);
  act(1);
  act(2);
  act(3);
}

// Like CopyTo, but the stores of whole registers bypass the caches.
struct StreamTo : CopyTo<Unit> {
  using CopyTo<Unit>::CopyTo;
};

template <class Lanes>
void put(const Nowhere<Unit>& /*sink*/, const uint8_t* /*from*/, typename Lanes::Register /*value*/) {}

template <class Lanes>
void put(const CopyTo<Unit>& sink, const uint8_t* from, typename Lanes::Register value) {
  Lanes::store(sink.place(from), value);
}

template <class Lanes>
void put(const StreamTo& sink, const uint8_t* from, typename Lanes::Register value) {
  Lanes::store_past_caches(sink.place(from), value);
}

template <class Lanes, class Sink>
typename Lanes::Register take(const uint8_t*& at, const Sink& sink) {
  const auto block = Lanes::load(at);
  put<Lanes>(sink, at, block);
  at += Lanes::kBytes;
  return block;
}

// Prefetches what a loop will read; the loop calls this before it takes its register `i` from `at`. Measured on data
// beyond the caches: prefetching 2 KiB ahead saves a fifth of the time for CRC-16 and a tenth for CRC-32C, but costs
// time if a register is a whole cache line. Together with stores that bypass the caches, prefetching a whole page at
// its start saves a tenth, except with 128-bit registers, whose folds are slower than memory.
template <class Lanes, class Sink>
[[gnu::always_inline]] inline void fetch_ahead(const uint8_t* at, size_t i, const Sink& /*sink*/) {
  const auto* const bytes = reinterpret_cast<const char*>(at);
  constexpr size_t kPage = 4096;
  if constexpr (std::is_same_v<Sink, StreamTo> && Lanes::kBytes > Lane::kBytes) {
    if (i == 0 && reinterpret_cast<uintptr_t>(at) % kPage < kRegisters * Lanes::kBytes) {
      for (size_t line = 0; line < kPage; line += 64) {
        _mm_prefetch(bytes + line, _MM_HINT_T1);
      }
    }
  } else if (Lanes::kBytes < 64 && i * Lanes::kBytes % 64 == 0) {
    _mm_prefetch(bytes + kPage / 2, _MM_HINT_T0);
  }
}

// The multipliers that move a lane by a number of bits, and the byte order that a lane needs for it. CRC-32C is
// reflected: the lower half of a lane holds the higher powers, so its multiplier has 64 more in the exponent. Both
// exponents are 1 less, because the product of two reflected values ends one bit short of its register. A residue is
// in the upper 32 of the 64 bits.
struct Crc32cMove {
  static constexpr uint64_t low(unsigned bits) { return uint64_t{power_of_x<Castagnoli>(bits + 63)} << 32; }
  static constexpr uint64_t high(unsigned bits) { return uint64_t{power_of_x<Castagnoli>(bits - 1)} << 32; }
  template <class Lanes>
  static typename Lanes::Register ordered(typename Lanes::Register block) {
    return block;
  }
};

struct Crc16Move {
  static constexpr uint64_t low(unsigned bits) { return move_top(bits); }
  static constexpr uint64_t high(unsigned bits) { return move_top(bits + 64); }
  template <class Lanes>
  static typename Lanes::Register ordered(typename Lanes::Register block) {
    return Lanes::reversed(block);
  }
};

template <class Lanes, class Move, unsigned kBits>
typename Lanes::Register multipliers() {
  constexpr uint64_t kLow = Move::low(kBits);
  constexpr uint64_t kHigh = Move::high(kBits);
  return Lanes::constant(kLow, kHigh);
}

// Folds four registers into one, at the place of the last.
template <class Lanes, class Move>
typename Lanes::Register join_registers(const Sums<Lanes>& sums) {
  constexpr unsigned kBits = 8 * Lanes::kBytes;
  auto all = Lanes::fold(sums[0], multipliers<Lanes, Move, 3 * kBits>(), sums[3]);
  all = Lanes::fold(sums[1], multipliers<Lanes, Move, 2 * kBits>(), all);
  return Lanes::fold(sums[2], multipliers<Lanes, Move, kBits>(), all);
}

// Folds the lanes of a register into one: moves each lane to the place of the last, and by kMore bits further.
template <class Lanes, class Move, unsigned kMore>
__m128i join_lanes(typename Lanes::Register sum) {
  if constexpr (Lanes::kBytes == Lane::kBytes && kMore == 0) {
    return sum;
  }
  constexpr size_t kHalves = Lanes::kBytes / 8;
  alignas(64) static constexpr auto kMultipliers = [] {
    std::array<uint64_t, kHalves> all{};  // those of the last lane stay 0 if it is not moved
    for (size_t i = 0; i < kHalves - (kMore == 0 ? 2 : 0); i += 2) {
      const auto bits = static_cast<unsigned>(64 * (kHalves - 2 - i)) + kMore;
      all[i] = Move::low(bits);
      all[i + 1] = Move::high(bits);
    }
    return all;
  }();
  const auto moved = Lanes::load(reinterpret_cast<const uint8_t*>(kMultipliers.data()));
  return Lanes::sum_of_lanes(
      Lanes::fold(sum, moved, kMore == 0 ? Lanes::last_lane(sum) : typename Lanes::Register{}));
}

// Moves each sum by four registers and adds the next register to it. After each of them, `beside` does work for
// another unit of the processor.
template <class Lanes, class Move, class Sink, class Beside>
[[gnu::always_inline]] inline void fold_on(Sums<Lanes>& sums, const uint8_t*& at, const Sink& sink,
                                           const Beside& beside) {
  each_register([&](size_t i) __attribute__((always_inline)) {
    fetch_ahead<Lanes>(at, i, sink);
    const auto next = Move::template ordered<Lanes>(take<Lanes>(at, sink));
    sums[i] = Lanes::fold(sums[i], multipliers<Lanes, Move, 8 * Lanes::kBytes * kRegisters>(), next);
    beside(i);
  });
}

// The default for `beside` in fold_all, which does nothing.
struct FoldsAlone {
  template <class Sums>
  void operator()(Sums& /*sums*/, const uint8_t*& /*at*/, size_t& /*count*/) const {}
};

// Folds `sum` and the `count` registers that follow it at `at` into one register. `beside` may fold some of them in
// its own way.
template <class Lanes, class Move, class Sink, class Beside = FoldsAlone>
[[gnu::always_inline]] inline typename Lanes::Register fold_all(typename Lanes::Register sum, const uint8_t*& at,
                                                                size_t count, const Sink& sink,
                                                                const Beside& beside = {}) {
  const auto next = [&] { return Move::template ordered<Lanes>(take<Lanes>(at, sink)); };
  if (count >= kRegisters - 1) {
    Sums<Lanes> sums = {sum, next(), next(), next()};
    count -= kRegisters - 1;
    beside(sums, at, count);
    for (; count >= kRegisters; count -= kRegisters) {
      fold_on<Lanes, Move>(sums, at, sink, [](size_t) {});
    }
    sum = join_registers<Lanes, Move>(sums);
  }
  for (; count > 0; --count) {
    sum = Lanes::fold(sum, multipliers<Lanes, Move, 8 * Lanes::kBytes>(), next());
  }
  return sum;
}

// Returns the CRC-32C of the data that is folded into `sum`.
template <class Lanes>
uint32_t crc32c_of(typename Lanes::Register sum) {
  const __m128i folded = join_lanes<Lanes, Crc32cMove, 0>(sum);
  return static_cast<uint32_t>(Unit::step(Unit::step(0, Lane::low_word(folded)), Lane::high_word(folded)));
}

template <class Lanes, class Sink, class Beside = FoldsAlone>
[[gnu::always_inline]] inline uint32_t crc32c_by_folds(uint32_t crc, const uint8_t* at, size_t length,
                                                       const Sink& sink, const Beside& beside = {}) {
  if (length >= Lanes::kBytes) {
    const auto first = Lanes::exclusive(take<Lanes>(at, sink), Lanes::first(crc));
    crc = crc32c_of<Lanes>(fold_all<Lanes, Crc32cMove>(first, at, length / Lanes::kBytes - 1, sink, beside));
    length %= Lanes::kBytes;
  }
  Lanes::leave();
  return chain<Unit>(crc, at, length, sink);
}

// Computes the CRC-32C of a copy whose stores bypass the caches. Such stores write whole cache lines, so they begin
// at the start of one. Only folds are used: with wide registers, memory is no faster than they are.
template <class Lanes>
uint32_t crc32c_past_caches(uint32_t crc, uint8_t* destination, const uint8_t* source, size_t length) {
  const size_t head = -reinterpret_cast<uintptr_t>(destination) % 64;
  const StreamTo sink(source, destination);
  crc = chain<Unit>(crc, source, head, sink);
  crc = crc32c_by_folds<Lanes>(crc, source + head, length - head, sink);
  _mm_sfence();
  return crc;
}

template <class Lanes>
uint16_t crc16(uint16_t crc, const uint8_t* at, size_t length) {
  if constexpr (Lanes::kBytes > Lane::kBytes) {
    if (length < Lanes::kBytes) {
      return crc16<Lane>(crc, at, length);
    }
  }
  // The seed is added to the first two bytes of the message.
  const auto first = Lanes::exclusive(take<Lanes>(at, Nowhere<Unit>{}), Lanes::first(__builtin_bswap16(crc)));
  const auto all =
      fold_all<Lanes, Crc16Move>(Lanes::reversed(first), at, length / Lanes::kBytes - 1, Nowhere<Unit>{});
  const size_t rest = length % Lanes::kBytes;
  crc = rest == 0 ? last_step<Lane>(join_lanes<Lanes, Crc16Move, kToLast>(all))
                  : finish<Lane>(join_lanes<Lanes, Crc16Move, 0>(all), at, rest);
  Lanes::leave();
  return crc;
}

}  // namespace
}  // namespace tirn::crc32

#endif
