// Times one repetition, and finds out whether it was disturbed.
#ifndef TIRN_BENCH_MEASURE_H
#define TIRN_BENCH_MEASURE_H

#include <sys/resource.h>

#include <cstdint>
#include <ctime>
#include <functional>

#include "support/partner.h"

namespace tirn::bench {

struct Sample {
  double nanoseconds = 0;  // of the whole repetition
  bool disturbed = false;  // a measuring thread was preempted, or the cores moved
  Placement placement = Placement::none;
};

// Does `count` operations and returns their time.
using Measure = std::function<Sample(uint64_t count)>;

inline uint64_t now() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<uint64_t>(time.tv_sec) * 1000000000 + static_cast<uint64_t>(time.tv_nsec);
}

// Returns how often this thread was preempted.
inline long preemptions() {
  rusage usage;
  getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_nivcsw;
}

template <class Work>
Sample timed(const Work& work) {
  const long preempted = preemptions();
  const uint64_t start = now();
  work();
  const uint64_t end = now();
  return {static_cast<double>(end - start), preemptions() != preempted};
}

template <class Operation>
void repeat(uint64_t count, const Operation& operation) {
  for (uint64_t i = 0; i < count; ++i) {
    operation();
  }
}

// Repeats operation().
template <class Operation>
Measure one_thread(Operation operation) {
  return [operation](uint64_t count) { return timed([&] { repeat(count, operation); }); };
}

// Calls prepare() before each repetition, untimed, and repeats operation(prepared).
template <class Prepare, class Operation>
Measure one_thread(Prepare prepare, Operation operation) {
  return [prepare, operation](uint64_t count) {
    const auto prepared = prepare();
    return timed([&] { repeat(count, [&] { operation(prepared); }); });
  };
}

// Repeats operation(0) on one core and operation(1) on another. The time is that of the slower one.
template <class Operation>
Measure two_threads(Operation operation) {
  return [operation](uint64_t count) {
    Partner& other = partner();
    const Placement before = other.placement();
    bool disturbed = false;
    const std::function<void()> theirs = [&] {
      disturbed = timed([&] { repeat(count, [&] { operation(1u); }); }).disturbed;
    };
    Sample sample = timed([&] {
      other.start(theirs);
      repeat(count, [&] { operation(0u); });
      other.wait();
    });
    sample.placement = other.placement();
    sample.disturbed |= disturbed || sample.placement != before;
    return sample;
  };
}

}  // namespace tirn::bench

#endif
