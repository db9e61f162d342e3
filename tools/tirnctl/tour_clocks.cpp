// The stop of the tour that compares the library's clocks with the system's.
#include <time.h>
#include <tirn/jiffies.h>

#include <cinttypes>
#include <cstdio>

#include "tour.h"

namespace tirnctl {
namespace {

struct Clocks {
  static Clocks read() { return {now(), kesa_time_getnanosec(), kesa_get_jiffies(), kesa_rte_get_timer_cycles()}; }
  uint64_t system;
  uint64_t cycle;
  uint64_t jiffies;
  uint64_t ticks;
};

}  // namespace

bool show_clocks() {
  constexpr timespec kSecond{1, 0};
  kesa_time_getnanosec();  // the first call may calibrate the counter
  const Clocks first = Clocks::read();
  nanosleep(&kSecond, nullptr);
  const Clocks last = Clocks::read();
  const uint64_t system = last.system - first.system;
  const uint64_t cycle = last.cycle - first.cycle;
  const uint64_t jiffies = last.jiffies - first.jiffies;
  const double apart = (static_cast<double>(cycle) - static_cast<double>(system)) / static_cast<double>(system) * 1e6;
  std::printf("    CLOCK_MONOTONIC      %12" PRIu64 " ns\n", system);
  std::printf("    kesa_time_getnanosec %12" PRIu64 " ns   %+.1f parts in a million\n", cycle, apart);
  std::printf("    counter              %12" PRIu64 " ticks, %" PRIu64 " ns each\n", last.ticks - first.ticks,
              kesa_time_cycles2ns(1));
  std::printf("    kesa_get_jiffies     %12" PRIu64 " jiffies, %" PRIu64 " ms\n", jiffies, jiffies * 4);
  std::printf("    the counter's page   %s\n",
              jiffies_uio_get()->jiffies != nullptr ? "is mapped: a jiffy costs one load" : "is missing");
  return jiffies >= 249 && jiffies <= system / KESA_NANOSECONDS_PER_JIFFY + 2;
}

}  // namespace tirnctl
