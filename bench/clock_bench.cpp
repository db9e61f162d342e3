// Measures readings of the jiffies and of the cycle clock.
#include <ctime>

#include "peers/peers.h"
#include "support/bench.h"
#include "support/machine.h"
#include "tirn/jiffies.h"

namespace tirn::bench {
namespace {

template <clockid_t kClock>
void read_clock() {
  timespec time;
  clock_gettime(kClock, &time);
  benchmark::DoNotOptimize(time);
}

std::string start_clock() {
  kesa_gettime_init();
  return kesa_time_getnanosec() == 0 ? "the clock does not start" : "";
}

// Keeps the stand-in's thread that advances the counter away from this core: it would wake in each repetition.
std::string start_jiffies() {
  start_apart([] { jiffies_Init(); });
  return jiffies_uio_get()->jiffies == nullptr ? "the jiffies device is missing" : "";
}

const Family clocks{[] {
  return std::vector<Group>{
      {.name = "clock/jiffies",
       .target = 1.1,
       .repetition = repetition_beside_clock(),
       .set_up = start_jiffies,
       .ours = {"kesa_get_jiffies", one_thread([] { benchmark::DoNotOptimize(kesa_get_jiffies()); })},
       .peers = {{"call with a flag test and a load",
                  one_thread([] { benchmark::DoNotOptimize(peer_flag_and_load()); })},
                 {"clock_gettime(CLOCK_MONOTONIC_COARSE)", one_thread(read_clock<CLOCK_MONOTONIC_COARSE>)}}},
      {.name = "clock/nanoseconds",
       .target = 0.55,
       .set_up = start_clock,
       .ours = {"kesa_time_getnanosec", one_thread([] { benchmark::DoNotOptimize(kesa_time_getnanosec()); })},
       .peers = {{"clock_gettime(CLOCK_MONOTONIC)", one_thread(read_clock<CLOCK_MONOTONIC>)},
                 {"std::chrono::steady_clock", one_thread([] { benchmark::DoNotOptimize(peer_steady_clock()); })}},
       .shown = {{"the bare counter, behind a call",
                  one_thread([] { benchmark::DoNotOptimize(peer_raw_counter()); })}}},
  };
}};

}  // namespace
}  // namespace tirn::bench
