// Runs more threads than cores at one lock, to measure what happens when a waiter has lost its core.
#ifndef TIRN_BENCH_CROWD_H
#define TIRN_BENCH_CROWD_H

#include <algorithm>
#include <array>
#include <thread>

#include "support/machine.h"
#include "support/measure.h"

namespace tirn::bench {

inline constexpr unsigned kCrowd = 4;        // threads, on two cores
inline constexpr uint64_t kCrowdStint = 16;  // operations between two readings of the clock

struct CrowdResult {
  double per_operation = 0;  // ns, of all threads together
  double longest_stint = 0;  // ns
};

// Each thread calls prepare() once and then operation() again and again for a while. The threads preempt each other,
// and that is what is measured, so preemptions do not count as a disturbance.
template <class Prepare, class Operation>
CrowdResult crowd(const Prepare& prepare, const Operation& operation) {
  constexpr uint64_t kTime = 60000000;  // ns
  struct alignas(64) Tally {
    uint64_t operations = 0;
    uint64_t longest = 0;
  };
  std::array<Tally, kCrowd> tallies;
  std::array<std::thread, kCrowd> threads;
  std::atomic<uint64_t> end{0};
  std::atomic<unsigned> ready{0};
  for (unsigned i = 0; i < kCrowd; ++i) {
    threads[i] = std::thread([&, i] {
      pin_to(cores()[i % 2]);
      prepare();
      ready.fetch_add(1);
      while (end.load(std::memory_order_relaxed) == 0) {
        std::this_thread::yield();
      }
      for (uint64_t time = now(); time < end.load(std::memory_order_relaxed);) {
        repeat(kCrowdStint, operation);
        const uint64_t start = std::exchange(time, now());
        tallies[i].longest = std::max(tallies[i].longest, time - start);
        tallies[i].operations += kCrowdStint;
      }
    });
  }
  while (ready.load() != kCrowd) {
    std::this_thread::yield();
  }
  const uint64_t start = now();
  end.store(start + kTime);
  CrowdResult result;
  uint64_t operations = 0;
  for (unsigned i = 0; i < kCrowd; ++i) {
    threads[i].join();
    operations += tallies[i].operations;
    result.longest_stint = std::max(result.longest_stint, static_cast<double>(tallies[i].longest));
  }
  result.per_operation = static_cast<double>(now() - start) / static_cast<double>(operations);
  return result;
}

// Measures one run of the crowd in each repetition. The count of such a row is 1.
template <double CrowdResult::*kFigure, class Prepare, class Operation>
Measure of_crowd(Prepare prepare, Operation operation) {
  return [prepare, operation](uint64_t) {
    Sample sample;
    const Placement before = placement_now();
    sample.nanoseconds = crowd(prepare, operation).*kFigure;
    sample.placement = placement_now();
    sample.disturbed = sample.placement != before;
    return sample;
  };
}

}  // namespace tirn::bench

#endif
