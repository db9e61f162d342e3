// CRC-32C with both units of the processor at work: in each iteration the carry-less multiplier folds four registers of
// `Lanes`, and the CRC instruction takes `kSteps` words in each of three chains. A piece is cut into the folded region
// and, behind it, the three parts of the chains, and the four values are joined at its end.
#ifndef TIRN_CRC32_X86_64_FORMS_STREAMS_H
#define TIRN_CRC32_X86_64_FORMS_STREAMS_H

#include <algorithm>

#include "libtirn/crc32/x86_64/forms/fold.h"

namespace tirn::crc32 {
namespace {

// Below this one chain is as fast as three and their joins.
inline constexpr size_t kLeastForParts = 96;

// In place of a number of steps: nothing is folded.
inline constexpr unsigned kChainsOnly = ~0u;

// As CopyTo, but whole registers go past the caches.
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

template <class Sink>
struct Chains {
  Unit::Value value[3];
  const uint8_t* at;
  size_t part;  // bytes from one chain's part to the next
  const Sink& sink;

  void take_word() {
    value[0] = step<Unit, uint64_t>(value[0], at, sink);
    value[1] = step<Unit, uint64_t>(value[1], at + part, sink);
    value[2] = step<Unit, uint64_t>(value[2], at + 2 * part, sink);
    at += 8;
  }
};

inline __m128i product(Unit::Value crc, uint32_t multiplier) {
  return Lane::low_low(Lane::first(crc), Lane::first(multiplier));
}

// A piece of `iterations` folds and three parts of `steps` words.
template <class Lanes, unsigned kSteps, class Sink>
uint32_t take_piece(uint32_t crc, const uint8_t* source, size_t iterations, size_t steps, const Sink& sink) {
  Chains<Sink> chains{
      {iterations == 0 ? crc : 0, 0, 0}, source + iterations * kRegisters * Lanes::kBytes, 8 * steps, sink};
  typename Lanes::Register sums[kRegisters] = {};
  if (iterations != 0) {
#pragma GCC unroll 4
    for (auto& sum : sums) {
      sum = take<Lanes>(source, sink);
    }
    sums[0] = Lanes::exclusive(sums[0], Lanes::first(crc));
    const auto round = multipliers<Lanes, Crc32cMove, 8 * Lanes::kBytes * kRegisters>();
    for (size_t i = 1; i < iterations; ++i) {
#pragma GCC unroll 4
      for (size_t j = 0; j < kRegisters; ++j) {
        fetch_ahead<Lanes>(source, j);
        sums[j] = Lanes::fold(sums[j], round, take<Lanes>(source, sink));
      }
#pragma GCC unroll 8
      for (unsigned word = 0; word < kSteps; ++word) {
        chains.take_word();
      }
    }
    steps -= (iterations - 1) * kSteps;
  }
  const Advance& part = kAdvances.by[chains.part / 8];
  for (; steps > 0; --steps) {
    chains.take_word();
  }
  __m128i products = Lane::exclusive(product(chains.value[0], part.twice), product(chains.value[1], part.once));
  if (iterations != 0) {
    const __m128i folded = join_lanes<Lanes, Crc32cMove>(join_registers<Lanes, Crc32cMove>(sums));
    const Unit::Value crc_of_folded = Unit::step(Unit::step(0, Lane::low_word(folded)), Lane::high_word(folded));
    products = Lane::exclusive(products, product(crc_of_folded, part.thrice));
  }
  return static_cast<uint32_t>(Unit::step(0, Lane::low_word(products)) ^ chains.value[2]);
}

template <class Lanes, unsigned kSteps, class Sink>
uint32_t crc32c(uint32_t crc, const uint8_t* source, size_t length, const Sink& sink) {
  constexpr size_t kFolded = kRegisters * Lanes::kBytes;
  constexpr size_t kIteration = kFolded + size_t{24} * kSteps;
  while (length >= kLeastForParts) {
    // The last piece takes what is short of an iteration in its three parts too.
    size_t iterations = kSteps == kChainsOnly ? 0 : length / kIteration;
    if constexpr (kSteps != 0) {
      iterations = std::min(iterations, kMostSteps / kSteps);
    }
    const size_t steps = std::min((length - iterations * kFolded) / 24, kMostSteps);
    crc = take_piece<Lanes, kSteps>(crc, source, iterations, steps, sink);
    source += iterations * kFolded + steps * 24;
    length -= iterations * kFolded + steps * 24;
  }
  return chain<Unit>(crc, source, length, sink);
}

template <class Lanes, unsigned kSteps>
uint32_t crc32c_without_copy(uint32_t crc, const uint8_t* source, size_t length) {
  return crc32c<Lanes, kSteps>(crc, source, length, Nowhere<Unit>{});
}

// Past the caches whole lines are written: from a line's start on, by the folds alone, which memory cannot outrun.
template <class Lanes, unsigned kSteps>
uint32_t crc32c_with_copy(uint32_t crc, uint8_t* destination, const uint8_t* source, size_t length) {
  if (length < kStoresPassCaches) {
    return crc32c<Lanes, kSteps>(crc, source, length, CopyTo<Unit>(source, destination));
  }
  const size_t head = -reinterpret_cast<uintptr_t>(destination) % 64;
  const StreamTo sink(source, destination);
  crc = chain<Unit>(crc, source, head, sink);
  crc = crc32c<Lanes, 0>(crc, source + head, length - head, sink);
  _mm_sfence();
  return crc;
}

}  // namespace
}  // namespace tirn::crc32

#endif
