// The timers of the wheel: the calls, and the thread that drives the wheel.
#include <algorithm>
#include <cerrno>

#include "libtirn/base/fork.h"
#include "libtirn/base/list_check.h"
#include "libtirn/base/log.h"
#include "libtirn/base/once.h"
#include "libtirn/base/result.h"
#include "libtirn/base/spinlock.h"
#include "libtirn/timer/timer_thread.h"
#include "libtirn/timer/timer_wheel.h"
#include "tirn/jiffies.h"
#include "tirn/process.h"
#include "tirn/sched.h"
#include "tirn/thread.h"

using namespace tirn;
using namespace tirn::timer;

namespace {

constexpr uint64_t kMillisecond = 1'000'000;  // in nanoseconds
constexpr uint64_t kNearest = 1000;           // milliseconds: a timer that expires sooner may have to wake the thread

static_assert(offsetof(kesa_timer, link) == 40 && offsetof(kesa_timer, isp) == 88 && sizeof(kesa_timer) == 120);
static_assert(offsetof(kesa_timer_root, tv5) - offsetof(kesa_timer_root, tv1) == 1180 * sizeof(kesa_list_head));

// The wheel. kesa_timer_show may read as far behind the last slot as a timer is long.
constinit struct {
  kesa_timer_root root;
  char behind[sizeof(kesa_timer)];
} g_wheel{{KESA_SPINLOCK_INIT,
           PTHREAD_MUTEX_INITIALIZER,
           PTHREAD_COND_INITIALIZER,
           0,
           0,
           0,
           0,
           nullptr,
           {},
           {},
           {},
           {},
           {}},
          {}};
constinit kesa_timer_root& g_root = g_wheel.root;

enum class State : uint32_t { kUp = 0, kNoThread = 1, kNotStarted = 2 };
constinit std::atomic<State> g_state{State::kNotStarted};
constinit Once g_started;

// Before a fork the wheel's lock is taken, so that the lists in the child are whole. The child has no timer thread.
// It takes its parent's timers off at once: those on the stacks of other threads are soon overwritten.
constinit bool g_is_locked = false;
void lock_wheel(ForkSteps&) {
  g_is_locked = take_before_fork([] { return take_spinlock(g_root.lock); });
}
void unlock_wheel(ForkSteps&) {
  if (g_is_locked) {
    g_is_locked = false;
    unlock_spinlock(g_root.lock);
  }
}
void stop_wheel(ForkSteps&) {
  g_is_locked = false;
  empty_slots(g_root);
  kesa_spinlock_init(&g_root.lock);
  g_root.mutex = PTHREAD_MUTEX_INITIALIZER;
  init_monotonic(g_root.cond);
  running_of(g_root).store(nullptr, std::memory_order_relaxed);
  g_state.store(State::kNotStarted, std::memory_order_relaxed);
  g_started.forget();
}
constinit ForkSteps g_fork_steps(stop_wheel, lock_wheel, unlock_wheel);

// Sleeps until the millisecond nextWake begins, for 20 ms at most. The caller holds the mutex.
void sleep_until_wake() {
  while (true) {
    const uint64_t now = kesa_time_getnanosec();
    const uint64_t wake = wake_of(g_root).load(std::memory_order_relaxed);
    if (now / kMillisecond >= wake) {
      return;
    }
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end = later(end, static_cast<int64_t>(std::min(wake * kMillisecond - now, kLongestSleep * kMillisecond)));
    if (pthread_cond_timedwait(&g_root.cond, &g_root.mutex, &end) == ETIMEDOUT) {
      return;
    }
  }
}

// Runs all milliseconds that have passed, one by one.
void run_wheel() {
  lock_spinlock(g_root.lock);
  if (g_root.pendingCount == 0) {
    start_over(g_root);
  } else {
    const uint64_t now = kesa_time_getmillisec();
    while (static_cast<int64_t>(g_root.wheelTime - now) <= 0) {
      run_tick(g_root);
    }
    wake_of(g_root).store(next_wake(g_root), std::memory_order_relaxed);
  }
  unlock_spinlock(g_root.lock);
}

void* kesa_run_timers(void*) {
  enter_timer_thread({__func__, 1, 3});
  pthread_mutex_lock(&g_root.mutex);
  while (true) {
    sleep_until_wake();
    pthread_mutex_unlock(&g_root.mutex);
    run_wheel();
    pthread_mutex_lock(&g_root.mutex);
  }
}

// The lock is held, so that a thread which modifies a timer meanwhile finds a whole wheel. It is made at load, and
// the start does not touch it: a fork may be waiting for it.
int init_timer_root() {
  constexpr char kFunction[] = "init_timer_root";
  empty_slots(g_root);
  start_over(g_root);
  g_root.runningTimer = nullptr;
  if (const int error = kesa_mtx_init(&g_root.mutex, 0); error != kOk) {
    return TIRN_ERROR_AS(kFunction, "Mutex init failed, error no %d.", error), kFail;
  }
  if (const int error = init_monotonic(g_root.cond); error != 0) {
    return TIRN_ERROR_AS(kFunction, "Cond init failed, error no %d", error), kFail;
  }
  g_root.wheelTime = kesa_time_getmillisec();
  return kOk;
}

// Logs under the name of the exported function that calls it.
int start_module() {
  constexpr char kFunction[] = "kesa_timer_module_init";
  g_fork_steps.follow();
  kesa_gettime_init();
  lock_spinlock(g_root.lock);
  const int result = init_timer_root();
  unlock_spinlock(g_root.lock);
  if (result != kOk) {
    return kFail;
  }
  pthread_t thread{};
  if (create_thread_nopreempt_raw(kesa_run_timers, nullptr, &thread) != kOk) {
    g_state.store(State::kNoThread, std::memory_order_relaxed);
    return TIRN_ERROR_AS(kFunction, "Create thread failed."), kFail;
  }
  lock_spinlock(g_root.lock);
  g_root.threadId = thread;
  unlock_spinlock(g_root.lock);
  g_state.store(State::kUp, std::memory_order_release);  // pairs with the acquire in is_up
  bind_timer_thread(thread, kFunction);
  return kOk;
}

bool is_up() { return g_state.load(std::memory_order_acquire) == State::kUp; }

bool is_high_resolution(const kesa_timer* timer) { return (timer->flags & KESA_TIMER_HIGH_RESOLUTION) != 0; }

// Tells the thread of an expiry that it may not look for in time. The lock is held.
void wake_thread() {
  const uint64_t wake = next_wake(g_root);
  const auto nextWake = wake_of(g_root);
  if (nextWake.load(std::memory_order_relaxed) <= wake || pthread_equal(pthread_self(), g_root.threadId) != 0) {
    nextWake.store(wake, std::memory_order_relaxed);
    return;
  }
  pthread_mutex_lock(&g_root.mutex);
  nextWake.store(wake, std::memory_order_relaxed);
  pthread_mutex_unlock(&g_root.mutex);
  pthread_cond_signal(&g_root.cond);
}

// Waits for the timer's callback first if `is_sync`. Logs under the name of the exported function that calls it.
int take_off(kesa_timer* timer, bool is_sync, const char* function) {
  if (!is_up()) {
    return TIRN_ERROR_AS(function, "kesa timer is not inited."), kFail;
  }
  lock_spinlock(g_root.lock);
  while (is_sync && running_of(g_root).load(std::memory_order_acquire) == timer) {
    unlock_spinlock(g_root.lock);
    kesa_thrd_yield();
    lock_spinlock(g_root.lock);
  }
  if (is_pending(*timer)) {
    detachTimerFromList(g_root, *timer, true);
  }
  unlock_spinlock(g_root.lock);
  return kOk;
}

}  // namespace

int kesa_timer_module_init() { return g_started.run(start_module); }

kesa_timer_root* kesa_get_timer_root() { return &g_root; }

int kesa_timer_init(kesa_timer* timer) {
  if (timer == nullptr) {
    return TIRN_ERROR("Input timer is null."), kFail;
  }
  *timer = {};
  return kOk;
}

int kesa_timer_set_raw(kesa_timer* timer, uint64_t timeout, uint64_t data, kesa_timer_fn func, const char* funcName,
                       const char* file, int32_t line) {
  if (timer == nullptr || func == nullptr) {
    return TIRN_ERROR("Input para is invalid."), kFail;
  }
  if (is_pending(*timer)) {
    return TIRN_ERROR("The timer is pending."), kFail;
  }
  *timer = {};
  timer->timeout = timeout;
  timer->data = data;
  timer->func = func;
  timer->funcName = funcName;
  timer->file = file;
  timer->line = line;
  return kOk;
}

int kesa_timer_add(kesa_timer* timer) {
  if (!is_up()) {
    return TIRN_ERROR("kesa timer is not inited."), kFail;
  }
  if (timer == nullptr || timer->func == nullptr) {
    return TIRN_ERROR("Input timer is null or not initiated."), kFail;
  }
  if (is_pending(*timer)) {
    return TIRN_ERROR("The timer is pending."), kFail;
  }
  if (is_high_resolution(timer)) {  // otherwise no store, which another thread's read could meet
    timer->flags &= static_cast<uint8_t>(~KESA_TIMER_HIGH_RESOLUTION);
  }
  return kesa_timer_modify(timer, std::atomic_ref(timer->timeout).load(std::memory_order_relaxed));
}

int kesa_timer_add_ns(kesa_timer* timer) {
  if (timer == nullptr || timer->func == nullptr) {
    return TIRN_ERROR("Input timer is null or not initiated."), kFail;
  }
  if (!is_high_resolution(timer)) {  // see kesa_timer_add
    timer->flags |= KESA_TIMER_HIGH_RESOLUTION;
  }
  return kesa_hr_timer_add(timer);
}

int kesa_timer_modify(kesa_timer* timer, uint64_t timeout) {
  if (timer == nullptr || timeout == 0 || timer->func == nullptr) {
    return TIRN_ERROR("Input para is invalid."), kFail;
  }
  if (is_high_resolution(timer)) {
    return kesa_hr_timer_modify(timer, timeout);
  }
  std::atomic_ref(timer->timeout).store(timeout, std::memory_order_relaxed);
  const uint64_t expires = kesa_time_getmillisec() + timeout * 1000 / 1000;  // the product wraps on purpose
  if (is_pending(*timer) && expires_of(*timer).load(std::memory_order_relaxed) == expires) {
    return kOk;
  }
  if (!is_up()) [[unlikely]] {
    g_fork_steps.follow();  // the start has not done so yet
  }
  lock_spinlock(g_root.lock);
  if (is_pending(*timer)) {
    detachTimerFromList(g_root, *timer, false);
  }
  if (g_root.pendingCount == 0) {
    start_over(g_root);
  }
  expires_of(*timer).store(expires, std::memory_order_relaxed);
  attachTimerToList(g_root, *timer);
  ++g_root.pendingCount;
  if (expires < g_root.wheelTime + kNearest) {
    wake_thread();
  }
  unlock_spinlock(g_root.lock);
  return kOk;
}

int kesa_timer_delete(kesa_timer* timer) {
  if (timer == nullptr) {
    return TIRN_ERROR("Input timer is null."), kFail;
  }
  return is_high_resolution(timer) ? kesa_hr_timer_delete(timer) : take_off(timer, false, __func__);
}

int kesa_timer_delete_sync(kesa_timer* timer) {
  if (timer == nullptr) {
    return TIRN_ERROR("Input timer is null."), kFail;
  }
  return is_high_resolution(timer) ? kesa_hr_timer_delete_sync(timer) : take_off(timer, true, __func__);
}

int kesa_timer_destroy(kesa_timer* timer) { return kesa_timer_delete_sync(timer); }

int kesa_timer_is_pending(kesa_timer* timer) {
  if (timer == nullptr) {
    return TIRN_ERROR("Input timer is null."), 0;
  }
  return is_high_resolution(timer) ? kesa_hr_timer_is_pending(timer) : static_cast<int>(is_pending(*timer));
}

void kesa_timer_show(const kesa_list_head* node) {
  // What follows a slot's head are links, which may be poison.
  const auto text = [](const char* string) {
    return list::leads_somewhere(reinterpret_cast<const kesa_list_head*>(string)) ? string : "NULL";
  };
  const auto* const timer =
      reinterpret_cast<const kesa_timer*>(reinterpret_cast<const char*>(node) - offsetof(kesa_timer, link));
  const unsigned long long entry = reinterpret_cast<uintptr_t>(timer);
  const unsigned long long function = reinterpret_cast<uintptr_t>(timer->func);
  TIRN_LOG_WRITE(0, kInfo, kFile.text, __LINE__, __func__,
                 "[Infra]Timer entry:0x%llx, expirTime:%lu, timeOut:%lu, data:%lu, func:0x%llx         "
                 "isp:%x flags:%x in funcName:%s file:%s line:%d",
                 entry, timer->expires, timer->timeout, timer->data, function, timer->isp, timer->flags,
                 text(timer->funcName), text(timer->file), timer->line);
  TIRN_INFO(
      "Timer entry:0x%llx, expirTime:%lu, timeOut:%lu, data:%lu, func:0x%llx         "
      "isp:%x flags:%x in funcName:%s file:%s line:%d",
      entry, timer->expires, timer->timeout, timer->data, function, timer->isp, timer->flags, text(timer->funcName),
      text(timer->file), timer->line);
}
