// Finds or measures the processor's nominal clock rate.
#include <time.h>

#include <cstdlib>

#include "libtirn/arch/arch.h"
#include "libtirn/base/command.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/jiffies/cycle_rules.h"
#include "tirn/jiffies.h"

using namespace tirn;

namespace {

struct BothClocks {
  static BothClocks now() {
    BothClocks clocks;
    clock_gettime(CLOCK_MONOTONIC_RAW, &clocks.raw);
    clocks.ticks = arch::counter_read();
    return clocks;
  }
  timespec raw;
  uint64_t ticks;
};

}  // namespace

int kesa_get_tsc_freq() {
  char line[256];
  switch (first_line("cat /proc/cpuinfo | grep -o constant_tsc | uniq", "|", line, sizeof line)) {
    case FirstLine::kNoPipe:
      return TIRN_ERROR("Cat /proc/cpuinfo for constant_tsc fail"), kFail;
    case FirstLine::kEmpty:
      return TIRN_ERROR("There is no constant_tsc flag in /proc/cpuinfo"), kFail;
    case FirstLine::kRead:
      break;
  }
  switch (first_line("cat /proc/cpuinfo | grep @ | uniq | awk '{print $NF}'", "|$", line, sizeof line)) {
    case FirstLine::kNoPipe:
      return TIRN_ERROR("Cat /proc/cpuinfo fail for cpufreq fail"), kFail;
    case FirstLine::kEmpty:
      kesa_estimate_tsc_freq();
      break;
    case FirstLine::kRead:
      currCpuGHz = std::strtod(line, nullptr);
      break;
  }
  return kOk;
}

void kesa_estimate_tsc_freq() {
  constexpr timespec kSpan{0, 50000000};
  const BothClocks before = BothClocks::now();
  nanosleep(&kSpan, nullptr);
  const BothClocks after = BothClocks::now();
  const int64_t nanoseconds =
      int64_t{after.raw.tv_sec - before.raw.tv_sec} * 1000000000 + (after.raw.tv_nsec - before.raw.tv_nsec);
  const double seconds = static_cast<double>(nanoseconds) / 1e9;
  const auto rate = static_cast<uint64_t>(static_cast<double>(after.ticks - before.ticks) / seconds);
  currCpuGHz = static_cast<double>(round_to_10mhz(rate)) / 1e9;
  TIRN_INFO("cpu standard hz is %f.", currCpuGHz);
}
