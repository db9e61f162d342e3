// High-resolution timers: a tree in the order of expiry, and the thread that sleeps until the first one.
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "libtirn/base/fork.h"
#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/timer/timer_thread.h"
#include "tirn/sched.h"
#include "tirn/thread.h"
#include "tirn/timer.h"

using namespace tirn;
using namespace tirn::timer;

namespace {

constexpr int64_t kIdleSleep = 10;  // seconds

struct Root {
  kesa_rb_root tree;
  pthread_mutex_t mutex;  // guards the tree, the pending marks and the thread's sleep
  pthread_cond_t cond;
  pthread_condattr_t condAttr;  // kept for the life of the module
  kesa_timer* runningTimer;
  pthread_once_t once;
};
constinit Root g_root{{}, PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, {}, nullptr, PTHREAD_ONCE_INIT};

// Other than these two: the number of the step that failed.
constexpr uint32_t kUp = 0;
constexpr uint32_t kNotStarted = 6;
constinit std::atomic<uint32_t> g_state{kNotStarted};

std::atomic_ref<uint8_t> mark_of(kesa_timer& timer) { return std::atomic_ref(timer.isp); }
std::atomic_ref<uint64_t> timeout_of(kesa_timer& timer) { return std::atomic_ref(timer.timeout); }
std::atomic_ref<kesa_timer*> running() { return std::atomic_ref(g_root.runningTimer); }

bool is_pending(kesa_timer& timer) { return mark_of(timer).load(std::memory_order_relaxed) == KESA_HR_TIMER_PENDING; }

kesa_timer* timer_of(kesa_rb_node* node) { return reinterpret_cast<kesa_timer*>(node); }
static_assert(offsetof(kesa_timer, rbNode) == 0);

bool is_earlier(const kesa_timer& timer, const kesa_timer& than) {
  return timer.hrExpireSec < than.hrExpireSec ||
         (timer.hrExpireSec == than.hrExpireSec && timer.hrExpireNsec < than.hrExpireNsec);
}

// Computes when a timer that starts now is due. Returns false, after a log line under the name of `function`, if the
// clock cannot be read.
bool expiry_after(uint64_t nanoseconds, timespec& expiry, const char* function) {
  if (clock_gettime(CLOCK_MONOTONIC, &expiry) != 0) {
    return TIRN_ERROR_AS(function, "Get clock time failed, errno %d", errno), false;
  }
  expiry.tv_nsec += static_cast<int64_t>(nanoseconds);
  if (expiry.tv_nsec > kNanosecondsPerSecond) {  // a whole second stays: the order of expiry is the same
    const ldiv_t parts = ldiv(expiry.tv_nsec, kNanosecondsPerSecond);
    expiry = {expiry.tv_sec + parts.quot, parts.rem};
  }
  return true;
}

// Puts the timer after those that expire at the same time, and wakes the thread if it is the first. The mutex is
// held.
void insert(kesa_timer& timer, const timespec& expiry) {
  timer.hrExpireSec = expiry.tv_sec;
  timer.hrExpireNsec = expiry.tv_nsec;
  kesa_rb_node** link = &g_root.tree.node;
  kesa_rb_node* parent = nullptr;
  while (*link != nullptr) {
    parent = *link;
    link = is_earlier(timer, *timer_of(parent)) ? &parent->left : &parent->right;
  }
  kesa_rb_link_node(&timer.rbNode, parent, link);
  kesa_rb_insert_color(&timer.rbNode, &g_root.tree);
  mark_of(timer).store(KESA_HR_TIMER_PENDING, std::memory_order_relaxed);
  if (kesa_rb_first(&g_root.tree) == &timer.rbNode) {
    pthread_cond_signal(&g_root.cond);
  }
}

// Takes the timer out of the tree if it is pending. The mutex is held.
void take_out(kesa_timer& timer) {
  if (is_pending(timer)) {
    kesa_rb_erase(&timer.rbNode, &g_root.tree);
    mark_of(timer).store(0, std::memory_order_relaxed);
  }
}

timespec now_at_last() {
  timespec now{};
  while (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
  }
  return now;
}

// Sleeps until a timer is due and returns it. The mutex is held, and released while asleep.
kesa_timer& wait_for_first() {
  while (true) {
    const timespec now = now_at_last();
    const auto* const node = kesa_rb_first(&g_root.tree);
    timespec end{now.tv_sec + kIdleSleep, now.tv_nsec};
    if (node != nullptr) {
      kesa_timer& first = *timer_of(const_cast<kesa_rb_node*>(node));
      if (first.hrExpireSec < now.tv_sec || (first.hrExpireSec == now.tv_sec && first.hrExpireNsec <= now.tv_nsec)) {
        return first;
      }
      end = later({first.hrExpireSec, 0}, first.hrExpireNsec);
    }
    pthread_cond_timedwait(&g_root.cond, &g_root.mutex, &end);
  }
}

void* kesa_hr_timer_thread(void*) {
  enter_timer_thread({"kesa_hr_timer", 0, 1});
  pthread_mutex_lock(&g_root.mutex);
  while (true) {
    kesa_timer& timer = wait_for_first();
    // Once the timer is taken out it may be set anew, and freed once the mutex is released.
    const kesa_timer_fn function = timer.func;
    const uint64_t data = timer.data;
    running().store(&timer, std::memory_order_relaxed);
    take_out(timer);
    pthread_mutex_unlock(&g_root.mutex);
    if (function != nullptr) {
      function(data);
    }
    // Release: a thread that sees the callback ended also sees what it has done. Pairs with the load in delete_sync.
    running().store(nullptr, std::memory_order_release);
    pthread_mutex_lock(&g_root.mutex);
  }
}

// A forked child has no thread and, because it starts its own module, no pending timer.
constinit bool g_is_locked = false;
void hold_tree(ForkSteps&) {
  g_is_locked = take_before_fork([] { return pthread_mutex_trylock(&g_root.mutex) == 0; });
}
void free_tree(ForkSteps&) {
  if (g_is_locked) {
    g_is_locked = false;
    pthread_mutex_unlock(&g_root.mutex);
  }
}
void stop_module(ForkSteps&) {
  g_is_locked = false;
  for (kesa_rb_node* node = kesa_rb_first(&g_root.tree); node != nullptr; node = kesa_rb_next(node)) {
    mark_of(*timer_of(node)).store(0, std::memory_order_relaxed);
  }
  g_root = {{}, PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, {}, nullptr, PTHREAD_ONCE_INIT};
  init_monotonic(g_root.cond);
  g_state.store(kNotStarted, std::memory_order_relaxed);
}
constinit ForkSteps g_fork_steps(stop_module, hold_tree, free_tree);

void kesa_hr_timer_module_init() {
  constexpr char kFunction[] = "kesa_hr_timer_module_init";
  if (g_state.load(std::memory_order_relaxed) == kUp) {
    return TIRN_INFO_AS(kFunction, "kesa hr timer is already inited.");
  }
  const auto fail = [](uint32_t step) { g_state.store(step, std::memory_order_relaxed); };
  std::memset(&g_root, 0, offsetof(Root, once));  // `once` is in use
  if (const int error = pthread_mutex_init(&g_root.mutex, nullptr); error != 0) {
    return TIRN_ERROR_AS(kFunction, "Mutex init failed, error no %d.", error), fail(1);
  }
  if (const int error = pthread_condattr_init(&g_root.condAttr); error != 0) {
    return TIRN_ERROR_AS(kFunction, "Condattr init failed, error no %d", error), fail(2);
  }
  if (const int error = pthread_condattr_setclock(&g_root.condAttr, CLOCK_MONOTONIC); error != 0) {
    return TIRN_ERROR_AS(kFunction, "Condattr setclock failed, error no %d", error), fail(3);
  }
  if (const int error = pthread_cond_init(&g_root.cond, &g_root.condAttr); error != 0) {
    return TIRN_ERROR_AS(kFunction, "Cond init failed, error no %d", error), fail(4);
  }
  g_fork_steps.follow();  // not before the mutex stands: a fork would take it
  pthread_t thread{};
  if (create_thread_nopreempt_raw(kesa_hr_timer_thread, nullptr, &thread) != kOk) {
    return TIRN_ERROR_AS(kFunction, "Create thread failed."), fail(5);
  }
  g_state.store(kUp, std::memory_order_release);  // pairs with the acquire in is_up
  bind_timer_thread(thread, kFunction);
  TIRN_INFO_AS(kFunction, "kesa hr timer inited OK.");
}

// Logs under the name of `function` if the module is not up.
bool is_up(const char* function) {
  if (g_state.load(std::memory_order_acquire) != kUp) {
    return TIRN_ERROR_AS(function, "kesa hr timer is not inited."), false;
  }
  return true;
}

bool is_short(uint64_t nanoseconds, const char* function) {
  if (nanoseconds > KESA_HR_TIMER_MAX) {
    return TIRN_ERROR_AS(function, "expire must less than 1 ms."), false;
  }
  return true;
}

}  // namespace

int kesa_hr_timer_add(kesa_timer* timer) {
  {
    const NoCancellation guard;  // a cancelled thread would leave the start half done
    pthread_once(&g_root.once, kesa_hr_timer_module_init);
  }
  if (!is_up(__func__) || timer == nullptr) {
    return kFail;
  }
  if (is_pending(*timer)) {
    return TIRN_ERROR("the hr timer is pending."), kFail;
  }
  timespec expiry{};
  const uint64_t timeout = timeout_of(*timer).load(std::memory_order_relaxed);
  if (!is_short(timeout, __func__) || !expiry_after(timeout, expiry, __func__)) {
    return kFail;
  }
  const MutexLock lock(g_root.mutex);
  if (is_pending(*timer)) {  // another thread was quicker
    return TIRN_ERROR("the hr timer is pending."), kFail;
  }
  insert(*timer, expiry);
  return kOk;
}

int kesa_hr_timer_modify(kesa_timer* timer, uint64_t delay) {
  if (!is_up(__func__) || timer == nullptr || !is_short(delay, __func__)) {
    return kFail;
  }
  const MutexLock lock(g_root.mutex);
  timeout_of(*timer).store(delay, std::memory_order_relaxed);
  take_out(*timer);
  timespec expiry{};
  if (!expiry_after(delay, expiry, __func__)) {
    return kFail;
  }
  insert(*timer, expiry);
  return kOk;
}

int kesa_hr_timer_delete(kesa_timer* timer) {
  if (!is_up(__func__)) {
    return kFail;
  }
  if (timer != nullptr) {
    const MutexLock lock(g_root.mutex);
    take_out(*timer);
  }
  return kOk;
}

int kesa_hr_timer_delete_sync(kesa_timer* timer) {
  if (!is_up(__func__)) {
    return kFail;
  }
  if (timer == nullptr) {
    return kOk;
  }
  pthread_mutex_lock(&g_root.mutex);
  while (running().load(std::memory_order_acquire) == timer) {
    pthread_mutex_unlock(&g_root.mutex);
    kesa_thrd_yield();
    pthread_mutex_lock(&g_root.mutex);
  }
  take_out(*timer);
  pthread_mutex_unlock(&g_root.mutex);
  return kOk;
}

int kesa_hr_timer_is_pending(kesa_timer* timer) { return timer != nullptr && is_pending(*timer) ? 1 : 0; }

void kesa_hr_timer_diagnose_func(int32_t argc, char** argv) {
  constexpr unsigned long kPage = 50;  // timers between two pauses, so that the log keeps pace
  constexpr uint32_t kPause = 100;     // in units of 10 ms
  constexpr char kWord[] = "list";
  if (!is_up(__func__)) {
    return;
  }
  if (argc != 3 || std::strncmp(argv[2], kWord, sizeof kWord - 1) != 0) {
    return TIRN_INFO("cmd input wrong.\n");
  }
  TIRN_INFO("list of timer\n%-5s %-24s %-12s %s:%-5s\n", "[NO.]", "[Timer Handler]", "[Expire(ms)]", "[file",
            "line]");
  const NoCancellation guard;
  const MutexLock lock(g_root.mutex);
  unsigned long number = 0;
  for (kesa_rb_node* node = kesa_rb_first(&g_root.tree); node != nullptr; node = kesa_rb_next(node)) {
    const kesa_timer& timer = *timer_of(node);
    TIRN_INFO("%-5lu %-24s %-12lu %s:%-5d\n", ++number, timer.funcName, timer.timeout, timer.file, timer.line);
    if (number % kPage == 0) {
      kesa_10msleep(kPause);
    }
  }
}
