// Starts the library by one table of steps, and tears it down.
#include <execinfo.h>

#include "libtirn/base/log.h"
#include "libtirn/base/once.h"
#include "tirn/affinity.h"
#include "tirn/cpumask.h"
#include "tirn/crc32.h"
#include "tirn/init.h"
#include "tirn/jiffies.h"
#include "tirn/sched.h"
#include "tirn/schedwork.h"
#include "tirn/smp.h"
#include "tirn/thread.h"
#include "tirn/timer.h"

using namespace tirn;

namespace {

constinit Once g_initialised;

struct StartStep {
  int (*call)();
  const char* failure;  // logged when the step fails; nullptr: its result does not matter
  bool is_fatal;
};

int name_this_module() {
  kesa_pid_set_name(TIRN_MODULE_ID, "TIRN");
  return kOk;
}

int choose_checksum() {
  kesa_crc32_init();
  return kOk;
}

// The order matters: the log's rate guard reads the clock, so the clock is set up early.
// clang-format off
constexpr StartStep kStartSteps[] = {
    {kesa_glibc_init, nullptr, false},
    {jiffies_usr_main, "Get jiffies usr addr failed.", true},
    {jiffies_Init, nullptr, false},
    {pid_init_names, nullptr, false},
    {name_this_module, nullptr, false},
    {kesa_thrd_setpid_accl, nullptr, false},
    {kesa_sched_init, nullptr, false},
    {sched_work_init, "Kesa schedWork initialize failed.", true},
    {cpumask_init, nullptr, false},
    {globalCpuNum_init, nullptr, false},
    {kesa_gettime_init, "Kesa time initialize failed.", true},
    {kesa_thrd_module_init, nullptr, false},
    {kesa_affinity_init, "Kesa affinity initialize failed.", false},
    {kesa_timer_module_init, "Kesa timer initialize failed.", true},
    {choose_checksum, nullptr, false},
};
// clang-format on

// Logs under the name of the exported function that calls it.
int run_start_steps() {
  constexpr char kFunction[] = "kesa_Init";
  TIRN_INFO_AS(kFunction, "Kesa init start.");
  int result = kOk;
  for (const StartStep& step : kStartSteps) {
    const int step_result = step.call();
    if (step_result == kOk || step.failure == nullptr) {
      continue;
    }
    TIRN_ERROR_AS(kFunction, "%s", step.failure);
    if (step.is_fatal) {
      result = step_result;
      break;
    }
  }
  TIRN_INFO_AS(kFunction, "Kesa init end ret %d.", result);
  return result == kOk ? kOk : kFail;
}

}  // namespace

uint32_t kesa_Init() { return static_cast<uint32_t>(g_initialised.run(run_start_steps)); }

int kesa_destory() {
  return g_initialised.undo([] {
    constexpr char kFunction[] = "kesa_destory";
    TIRN_INFO_AS(kFunction, "Kesa destroy start.");
    pid_destroy_names();
    sched_work_destroy();
    TIRN_INFO_AS(kFunction, "Kesa destroy end.");
  });
}

int kesa_glibc_init() {
  const NoCancellation guard;  // a cancelled thread would leave the loader's lock held
  void* frames[3];
  return backtrace(frames, 3);
}
