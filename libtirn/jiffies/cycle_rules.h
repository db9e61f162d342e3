// Finds an undisturbed reading of a counter, and rounds clock rates. The counter itself is read elsewhere.
#ifndef TIRN_JIFFIES_CYCLE_RULES_H
#define TIRN_JIFFIES_CYCLE_RULES_H

#include <cstdint>

namespace tirn {

// Reads in pairs until the two readings of a pair lie at most 8 ticks apart, or 200 times. Returns the second reading
// of the last pair. A step back shows as a huge difference and is refused too.
template <typename Read>
uint64_t undisturbed_reading(Read read) {
  constexpr uint64_t kTicksApart = 8;
  constexpr int kRounds = 200;
  uint64_t first;
  uint64_t second;
  int rounds = 0;
  do {
    first = read();
    second = read();
    ++rounds;
  } while (second - first > kTicksApart && rounds < kRounds);
  return second;
}

// Rounds to the nearest multiple of 10 MHz; a tie goes up.
constexpr uint64_t round_to_10mhz(uint64_t hertz) {
  constexpr uint64_t kStep = 10000000;
  const uint64_t lower = hertz / kStep * kStep;
  const uint64_t upper = lower == hertz ? lower : lower + kStep;
  return upper - hertz <= hertz - lower ? upper : lower;
}

}  // namespace tirn

#endif
