// What the threads of both kinds of timers share.
#include "libtirn/timer/timer_thread.h"

#include <sys/prctl.h>

#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "tirn/affinity.h"
#include "tirn/sched.h"
#include "tirn/thread_strategy.h"

namespace tirn::timer {

void enter_timer_thread(const TimerThread& thread) {
  kesa_set_process_name(thread.name);
  kesa_thrd_setprio(thread.priority);
  kesa_setCurThreadStrategy(thread.strategy);
  prctl(PR_SET_TIMERSLACK, 1ul);
}

void bind_timer_thread(pthread_t thread, const char* function) {
  constexpr char kLevel[] = "affinity_level_1";
  if (kesa_set_thread_affinity(thread, kLevel) != kOk) {
    TIRN_INFO_AS(function, "set thread affinity failed, tid(%lu), affinity_level(%s).", thread, kLevel);
  }
}

int init_monotonic(pthread_cond_t& cond) {
  pthread_condattr_t attributes;
  if (const int error = pthread_condattr_init(&attributes); error != 0) {
    return error;
  }
  int error = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  if (error == 0) {
    error = pthread_cond_init(&cond, &attributes);
  }
  pthread_condattr_destroy(&attributes);
  return error;
}

}  // namespace tirn::timer
