// The cycle clock: scales the processor's counter to nanoseconds.
#include <atomic>

#include "libtirn/arch/arch.h"
#include "libtirn/base/once.h"
#include "libtirn/jiffies/cycle_rules.h"
#include "tirn/jiffies.h"

using namespace tirn;

double currCpuGHz = 0;

namespace {

constinit Once g_scale_set;

// Whole nanoseconds per tick. Relaxed: a reader needs nothing but this value.
constinit std::atomic<uint64_t> g_nanoseconds_per_tick{0};

}  // namespace

int kesa_CheckCurrCpu() {
  constexpr uint64_t kNanosecondsPerSecond = 1000000000;
  currCpuGHz = 2.6;
  const uint64_t hertz = arch::counter_frequency();
  g_nanoseconds_per_tick.store(hertz == 0 ? 0 : kNanosecondsPerSecond / hertz, std::memory_order_relaxed);
  return kOk;
}

int kesa_gettime_init() { return g_scale_set.run(kesa_CheckCurrCpu); }

uint64_t kesa_time_cycles2ns(uint64_t cycles) {
  return cycles * g_nanoseconds_per_tick.load(std::memory_order_relaxed);
}

uint64_t kesa_time_getnanosec() {
  return arch::counter_read() * g_nanoseconds_per_tick.load(std::memory_order_relaxed);
}

uint64_t kesa_time_getmillisec() { return kesa_time_getnanosec() / 1000000; }

uint64_t kesa_rte_get_timer_cycles() { return undisturbed_reading(arch::counter_read); }
