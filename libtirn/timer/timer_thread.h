// What the threads of both kinds of timers share.
#ifndef TIRN_TIMER_TIMER_THREAD_H
#define TIRN_TIMER_TIMER_THREAD_H

#include <pthread.h>
#include <time.h>

#include <cstdint>

namespace tirn::timer {

constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;

struct TimerThread {
  const char* name;
  uint32_t priority;
  uint32_t strategy;
};

// Names the calling thread and gives it its priority, its strategy, and a timer slack of 1 ns instead of 50 us.
void enter_timer_thread(const TimerThread& thread);

// Binds the thread to the CPUs of its affinity level. A failure is logged under the name of `function`.
void bind_timer_thread(pthread_t thread, const char* function);

// Makes a condition variable whose timed waits use CLOCK_MONOTONIC. Returns 0 or an errno value.
int init_monotonic(pthread_cond_t& cond);

// Returns the time `nanoseconds` after `time`, in the form that a timed wait accepts.
inline timespec later(timespec time, int64_t nanoseconds) {
  const int64_t sum = time.tv_nsec + nanoseconds;
  return {time.tv_sec + sum / kNanosecondsPerSecond, sum % kNanosecondsPerSecond};
}

}  // namespace tirn::timer

#endif
