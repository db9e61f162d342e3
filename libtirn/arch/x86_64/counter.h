// x86-64: reads the time-stamp counter, scaled to ticks of 10 ns. They are this coarse so that two readings in a row
// lie only a tick or two apart. If the counter is not invariant or is too slow, the monotonic raw clock is read in
// the same ticks.
#ifndef TIRN_ARCH_X86_64_COUNTER_H
#define TIRN_ARCH_X86_64_COUNTER_H

#include <x86intrin.h>

#include <atomic>
#include <cstdint>

namespace tirn::arch {

inline constexpr uint64_t kCounterFrequency = 100000000;

// Ticks per cycle of the time-stamp counter in units of 2^-64, or one of the two values below. Relaxed: a reader
// needs nothing but this value.
extern std::atomic<uint64_t> g_tick_scale;
inline constexpr uint64_t kNotCalibrated = 0;
inline constexpr uint64_t kNoCounter = 1;  // the time-stamp counter is not used

uint64_t counter_read_slow();

inline uint64_t counter_read() {
  const uint64_t scale = g_tick_scale.load(std::memory_order_relaxed);
  if (scale <= kNoCounter) [[unlikely]] {
    return counter_read_slow();
  }
  return static_cast<uint64_t>(static_cast<unsigned __int128>(__rdtsc()) * scale >> 64);
}

inline void spin_hint() { _mm_pause(); }

// Processors that lack the instruction execute it as a no-op.
inline void fetch_to_write(const void* bytes) { asm volatile("prefetchw (%0)" : : "r"(bytes)); }

}  // namespace tirn::arch

#endif
