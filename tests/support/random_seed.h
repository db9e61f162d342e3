// The seed of a random test.
#ifndef TIRN_TEST_RANDOM_SEED_H
#define TIRN_TEST_RANDOM_SEED_H

#include <cstdio>
#include <cstdlib>
#include <random>

namespace tirn::test {

// Returns a new seed in each run, and prints it. Setting TIRN_TEST_SEED to a printed seed repeats that run.
inline unsigned random_seed() {
  static const unsigned seed = [] {
    const char* const given = std::getenv("TIRN_TEST_SEED");
    const unsigned chosen =
        given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device()();
    std::fprintf(stderr, "TIRN_TEST_SEED=%u\n", chosen);
    return chosen;
  }();
  return seed;
}

}  // namespace tirn::test

#endif
