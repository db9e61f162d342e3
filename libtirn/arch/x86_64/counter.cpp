// x86-64: calibrates the time-stamp counter, and reads the clock where that counter is not used.
#include <cpuid.h>
#include <time.h>

#include "libtirn/arch/arch.h"

namespace tirn::arch {

constinit std::atomic<uint64_t> g_tick_scale{kNotCalibrated};

namespace {

uint64_t raw_nanoseconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_RAW, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

bool has_invariant_counter() {
  unsigned a, b, c, d;
  return __get_cpuid(0x80000007, &a, &b, &c, &d) != 0 && (d & 1u << 8) != 0;
}

// Returns the counter's frequency as the processor (leaf 0x15: crystal and ratio) or the hypervisor (leaf 0x40000010:
// kHz) reports it, or 0 if neither does.
uint64_t frequency_told() {
  unsigned a, b, c, d;
  if (__get_cpuid(0x15, &a, &b, &c, &d) != 0 && a != 0 && b != 0 && c != 0) {
    return uint64_t{c} * b / a;
  }
  constexpr unsigned kHypervisorBit = 1u << 31;
  if (__get_cpuid(1, &a, &b, &c, &d) != 0 && (c & kHypervisorBit) != 0) {
    __cpuid(0x40000000, a, b, c, d);
    if (a >= 0x40000010) {
      __cpuid(0x40000010, a, b, c, d);
      return uint64_t{a} * 1000;
    }
  }
  return 0;
}

struct Reading {
  uint64_t cycles;
  uint64_t nanoseconds;
};

// Reads both clocks at one moment: takes several readings, each between two of the counter, and returns the tightest.
Reading read_both() {
  Reading best{};
  uint64_t tightest = ~uint64_t{0};
  for (int i = 0; i < 32; ++i) {
    const uint64_t before = __rdtsc();
    const uint64_t nanoseconds = raw_nanoseconds();
    const uint64_t after = __rdtsc();
    if (after - before < tightest) {
      tightest = after - before;
      best = {before + (after - before) / 2, nanoseconds};
    }
  }
  return best;
}

// Measures over 1 ms. The error of some 10 ns in each of the two readings makes about ten parts in a million.
uint64_t frequency_measured() {
  constexpr uint64_t kSpan = 1000000;
  const Reading first = read_both();
  while (raw_nanoseconds() - first.nanoseconds < kSpan) {
    spin_hint();
  }
  const Reading last = read_both();
  return static_cast<uint64_t>(static_cast<unsigned __int128>(last.cycles - first.cycles) * 1000000000 /
                               (last.nanoseconds - first.nanoseconds));
}

uint64_t calibrate() {
  if (!has_invariant_counter()) {
    return kNoCounter;
  }
  uint64_t hertz = frequency_told();
  if (hertz == 0) {
    hertz = frequency_measured();
  }
  if (hertz <= kCounterFrequency) {  // the scale must stay below one tick per cycle
    return kNoCounter;
  }
  return static_cast<uint64_t>((static_cast<unsigned __int128>(kCounterFrequency) << 64) / hertz);
}

}  // namespace

// Runs wherever the counter is read first, also in a signal handler, so it locks and allocates nothing. If several
// threads calibrate at once, one scale wins, so that all readings share it.
uint64_t counter_read_slow() {
  uint64_t scale = g_tick_scale.load(std::memory_order_relaxed);
  if (scale == kNotCalibrated) {
    const uint64_t mine = calibrate();
    if (g_tick_scale.compare_exchange_strong(scale, mine, std::memory_order_relaxed)) {
      scale = mine;
    }
  }
  if (scale != kNoCounter) {
    return counter_read();
  }
  // Cut to whole microseconds: the clock may cost a system call, but two readings in a row must lie close together.
  return raw_nanoseconds() / 1000 * (kCounterFrequency / 1000000);
}

// Called at set-up: reads the counter, so that it is calibrated here and not in a later reading.
uint64_t counter_frequency() {
  counter_read();
  return kCounterFrequency;
}

}  // namespace tirn::arch
