// CRC-32C with two units of the processor at work. In each iteration, the carry-less multiplier folds four registers
// of `Lanes`, and the CRC instruction takes `kSteps` words in each of three chains. A piece of the buffer consists of
// the folded region, followed by the parts of the three chains. The four values are joined at the end of the piece.
#ifndef TIRN_CRC32_X86_64_FORMS_STREAMS_H
#define TIRN_CRC32_X86_64_FORMS_STREAMS_H

#include <algorithm>

#include "libtirn/crc32/x86_64/forms/fold.h"

namespace tirn::crc32 {
namespace {

// Below this length, one chain is as fast as three chains with their joins.
inline constexpr size_t kLeastForParts = 96;

// A value for kSteps: nothing is folded, and the chains take everything.
inline constexpr unsigned kChainsOnly = ~0u;

template <class Sink>
struct Chains {
  Unit::Value value[3];
  const uint8_t* at;
  size_t part;  // bytes from one chain's part to the next
  const Sink& sink;

  [[gnu::always_inline]] void take_word() {
    value[0] = step<Unit, uint64_t>(value[0], at, sink);
    value[1] = step<Unit, uint64_t>(value[1], at + part, sink);
    value[2] = step<Unit, uint64_t>(value[2], at + 2 * part, sink);
    at += 8;
  }
};

[[gnu::always_inline]] inline __m128i product(Unit::Value crc, uint64_t multiplier) {
  return Lane::low_low(Lane::first(crc), Lane::first(multiplier));
}

// Takes a piece: the folded region is `iterations` times four registers long, and each of the three parts has `steps`
// words. Returns the CRC at the end of the piece.
template <class Lanes, unsigned kSteps, class Sink>
uint32_t take_piece(uint32_t crc, const uint8_t* source, size_t iterations, size_t steps, const Sink& sink) {
  static_assert(kSteps == kChainsOnly || (kSteps >= kRegisters && kSteps <= 2 * kRegisters));
  Chains<Sink> chains{
      {iterations == 0 ? crc : 0, 0, 0}, source + iterations * kRegisters * Lanes::kBytes, 8 * steps, sink};
  uint32_t folded = 0;
  if (iterations != 0) {
    const auto first = Lanes::exclusive(take<Lanes>(source, sink), Lanes::first(crc));
    Sums<Lanes> sums = {first, take<Lanes>(source, sink), take<Lanes>(source, sink), take<Lanes>(source, sink)};
    for (size_t i = 1; i < iterations; ++i) {
      fold_on<Lanes, Crc32cMove>(
          sums, source, sink, [&](size_t j) __attribute__((always_inline)) {
            chains.take_word();
            if (j < kSteps - kRegisters) {
              chains.take_word();
            }
          });
    }
    steps -= (iterations - 1) * kSteps;
    folded = crc32c_of<Lanes>(join_registers<Lanes, Crc32cMove>(sums));
  }
  const Advance& part = kAdvances.by[chains.part / 8];
  for (; steps > 0; --steps) {
    chains.take_word();
  }
  __m128i products = Lane::exclusive(product(chains.value[0], part.twice), product(chains.value[1], part.once));
  if (iterations != 0) {
    products = Lane::exclusive(products, product(folded, part.thrice));
  }
  crc = static_cast<uint32_t>(Unit::step(0, Lane::low_word(products)) ^ chains.value[2]);
  Lanes::leave();
  return crc;
}

template <class Lanes, unsigned kSteps, class Sink>
uint32_t crc32c(uint32_t crc, const uint8_t* source, size_t length, const Sink& sink) {
  constexpr size_t kFolded = kRegisters * Lanes::kBytes;
  constexpr size_t kIteration = kFolded + size_t{24} * kSteps;
  while (length >= kLeastForParts) {
    // In the last piece, the three parts also take what is too short for another iteration.
    const size_t iterations = kSteps == kChainsOnly ? 0 : std::min(length / kIteration, kMostSteps / kSteps);
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

template <class Lanes, unsigned kSteps>
uint32_t crc32c_with_copy(uint32_t crc, uint8_t* destination, const uint8_t* source, size_t length) {
  return length < kStoresPassCaches ? crc32c<Lanes, kSteps>(crc, source, length, CopyTo<Unit>(source, destination))
                                    : crc32c_past_caches<Lanes>(crc, destination, source, length);
}

}  // namespace
}  // namespace tirn::crc32

#endif
