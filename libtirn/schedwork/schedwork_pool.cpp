// The threads that run scheduled work: their start, their rounds and their end.
#include <algorithm>
#include <csignal>
#include <utility>

#include "libtirn/arch/arch.h"
#include "libtirn/base/cancellation.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/base/spinlock.h"
#include "libtirn/schedwork/schedwork.h"
#include "tirn/cfg.h"
#include "tirn/sched.h"
#include "tirn/str.h"
#include "tirn/thread.h"

using namespace tirn;
using namespace tirn::schedwork;

namespace {

constexpr int32_t kMostThreads = static_cast<int32_t>(KESA_SCHED_WORK_THREADS);
constexpr int32_t kNoMoreThreads = 1024;  // added to the total, so that it is above the most
constexpr int64_t kLongestWait = 10000;   // milliseconds
constexpr uint64_t kLeastFree = 4;        // idle threads
constexpr uint64_t kMostFree = 8;
constexpr auto relaxed = std::memory_order_relaxed;

// The bounds in force.
constinit std::atomic<int32_t> g_least_free{kLeastFree};
constinit std::atomic<int32_t> g_most_free{kMostFree};

// The queue is locked during a fork, so that the child finds it whole.
bool g_is_list_locked = false;

void lock_list(ForkSteps&) {
  g_is_list_locked = take_before_fork([] { return take_spinlock(g_pool.list_lock); });
}

void unlock_list(ForkSteps&) {
  if (std::exchange(g_is_list_locked, false)) {
    unlock_spinlock(g_pool.list_lock);
  }
}

// Runs in the child, which has none of the threads. If the forking thread was one, it belongs to a generation that
// has ended.
void forget_threads(ForkSteps& self) {
  const bool is_list_whole = g_is_list_locked;
  unlock_list(self);
  if (is_list_whole) {
    drop_works();
  } else {
    kesa_spinlock_init(&g_pool.list_lock);
    g_pool.work_list = {&g_pool.work_list, &g_pool.work_list};
  }
  kesa_spinlock_init(&g_pool.destroy_lock);
  kesa_sem_enhance_init(&g_pool.work_sem, 0);
  g_pool.total_threads.store(0, relaxed);
  g_pool.free_threads.store(0, relaxed);
  g_pool.started_works.store(0, relaxed);
  g_pool.finished_works.store(0, relaxed);
  g_pool.last_check_jiffies.store(0, relaxed);
  renew_slots();
  g_pool.generation.fetch_add(1, relaxed);
  g_pool.destroying.store(0, relaxed);
  g_pool.threads_started.store(0, relaxed);
}

struct Worker {
  // Noted first. When it has changed, the pool has ended meanwhile and no longer counts this thread.
  const uint32_t generation = g_pool.generation.load(std::memory_order_acquire);
  uint32_t slot = kNoSlot;
  bool is_running_work = false;

  bool is_counted() const { return g_pool.generation.load(std::memory_order_acquire) == generation; }
};

// The creator may block the wake-up signal, and the thread inherits that.
void unblock_wake_ups() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGWAKEUP);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

void discount_idle_thread() {
  g_pool.free_threads.fetch_sub(1, relaxed);
  g_pool.total_threads.fetch_sub(1, relaxed);
}

// Returns whether the thread has to end because the pool does. It is no longer counted then.
bool ends_with_pool(const Worker& worker) {
  if (g_pool.destroying.load(std::memory_order_acquire) == 0) {
    return false;
  }
  lock_spinlock(g_pool.destroy_lock);
  if (worker.is_counted()) {
    discount_idle_thread();
  }
  unlock_spinlock(g_pool.destroy_lock);
  return true;
}

void release_slot(Worker& worker) {
  if (worker.slot != kNoSlot) {
    kesa_del_sched_work_timeout_check(std::exchange(worker.slot, kNoSlot));
  }
}

// Runs a record. Returns false if the thread has to end afterwards.
bool run_work(Worker& worker, kesa_sched_work* work) {
  constexpr char kFunction[] = "sched_work_thread";
  g_pool.free_threads.fetch_sub(1, relaxed);
  sched_work_create_thread();
  if (g_pool.total_threads.load(relaxed) == kMostThreads && g_pool.free_threads.load(relaxed) == 0) {
    TIRN_LIMITED_AS(kFunction, kInfo, "All kesa_sched_work threads is running.");
  }
  g_pool.started_works.fetch_add(1, relaxed);
  worker.is_running_work = true;
  sched_work_run_task(work, worker.slot);
  worker.is_running_work = false;
  g_pool.finished_works.fetch_add(1, relaxed);
  if (!worker.is_counted()) {
    worker.slot = kNoSlot;  // the slot stays claimed
    return false;
  }
  if (g_pool.free_threads.fetch_add(1, relaxed) < g_most_free.load(relaxed)) {
    return true;
  }
  release_slot(worker);  // first, since a thread that is counted in its place needs one
  discount_idle_thread();
  TIRN_DEBUG_AS(kFunction, "Sched work thread exited.");
  return false;
}

bool has_work() { return std::atomic_ref(g_pool.work_list.next).load(relaxed) != &g_pool.work_list; }

// Looks for more work for a few microseconds. To sleep and be woken for the next record costs both sides more.
void look_for_work() {
  constexpr int kLooks = 100;
  for (int i = 0; i < kLooks && !has_work(); ++i) {
    arch::spin_hint();
  }
}

// Runs work until the thread has to end.
void serve(Worker& worker) {
  for (;;) {
    const int result = kesa_sem_enhance_down_timeout(&g_pool.work_sem, kLongestWait);
    if (!worker.is_counted()) {
      if (result == kOk) {
        kesa_sem_enhance_up(&g_pool.work_sem);  // the unit of a record that a counted thread has to run
      }
      return;
    }
    if (ends_with_pool(worker)) {
      return;
    }
    kesa_sched_work* const work = sched_work_select_task();
    if (work != nullptr) {
      if (!run_work(worker, work)) {
        return;
      }
      look_for_work();
    }
  }
}

// Gives back what the worker has. If a handler has ended the thread, it is still counted, though not as idle; if the
// pool has ended meanwhile, the slot stays claimed.
void leave(Worker& worker) {
  if (worker.is_running_work) {
    g_pool.finished_works.fetch_add(1, relaxed);
    if (!worker.is_counted()) {
      return;
    }
  }
  release_slot(worker);
  if (worker.is_running_work) {
    g_pool.total_threads.fetch_sub(1, relaxed);
  }
}

uint64_t read_bound(const char* item, uint64_t bound_if_missing) {
  char value[32];
  return kesa_cfg_getItemValue("KESA", item, value, sizeof value) == kOk ? kesa_str_tou64(value) : bound_if_missing;
}

int start_pool() {
  if (g_pool.inited.load(relaxed) == 0) {  // the rest of the pool's initial state is constant
    kesa_init_sched_work_heal_task_info();
    renew_slots();
    g_pool.inited.store(1, relaxed);
  }
  if (g_pool.threads_started.load(relaxed) != 0) {
    return kOk;
  }
  sched_work_thread_num_set();
  if (sched_work_create_thread() != kOk) {
    return kFail;
  }
  g_pool.threads_started.store(1, std::memory_order_release);  // publishes the tables; pairs with is_started()
  return kOk;
}

bool begin_end_of_pool() {
  lock_spinlock(g_pool.destroy_lock);
  const bool begins = g_pool.threads_started.load(relaxed) != 0 && g_pool.destroying.load(relaxed) == 0;
  if (begins) {
    g_pool.destroying.store(1, std::memory_order_release);
  }
  unlock_spinlock(g_pool.destroy_lock);
  return begins;
}

void end_pool() {
  g_pool.total_threads.fetch_add(kNoMoreThreads, relaxed);
  kesa_10msleep(1);
  drop_works();
  for (int32_t idle = g_pool.free_threads.load(relaxed); idle > 0; --idle) {
    kesa_sem_enhance_up(&g_pool.work_sem);
    kesa_10msleep(1);
  }
  g_pool.generation.fetch_add(1, std::memory_order_release);  // pairs with is_counted()
  if (const int32_t total = g_pool.total_threads.load(relaxed); total != kNoMoreThreads) {
    TIRN_DEBUG_AS("sched_work_destroy", "some sched work thread exited abnormally. totalThread = %d",
                  total - kNoMoreThreads);
  }
  // Under the lock, so that a thread which sees `destroying` either subtracts itself before the reset or not at all.
  lock_spinlock(g_pool.destroy_lock);
  g_pool.total_threads.store(0, relaxed);
  g_pool.free_threads.store(0, relaxed);
  g_pool.destroying.store(0, std::memory_order_release);
  g_pool.threads_started.store(0, relaxed);
  unlock_spinlock(g_pool.destroy_lock);
}

}  // namespace

namespace tirn::schedwork {

constinit Pool g_pool;
constinit ForkSteps g_fork_steps(forget_threads, lock_list, unlock_list);

}  // namespace tirn::schedwork

int sched_work_init() {
  g_fork_steps.follow();
  return g_pool.init_mutex.run(start_pool, Once::Done::kNever);
}

int sched_work_destroy() {
  return g_pool.init_mutex.run(
      [] {
        if (begin_end_of_pool()) {
          end_pool();
        }
        return kOk;
      },
      Once::Done::kNever);
}

void sched_work_thread_num_set() {
  const uint64_t least = read_bound("SCHED_THREAD_FREE_NUM_MIN", kLeastFree);
  const uint64_t most = read_bound("SCHED_THREAD_FREE_NUM_MAX", kMostFree);
  if (most >= least) {
    g_least_free.store(static_cast<int32_t>(std::min(least, kLeastFree)), relaxed);
    g_most_free.store(static_cast<int32_t>(std::min(most, kMostFree)), relaxed);
  }
}

int sched_work_create_thread() {
  const int32_t least_free = g_least_free.load(relaxed);
  // Tested before the counts are raised too, since mostly nothing is to be done.
  while (g_pool.free_threads.load(relaxed) < least_free) {
    if (g_pool.free_threads.fetch_add(1, relaxed) >= least_free) {
      g_pool.free_threads.fetch_sub(1, relaxed);
      return kOk;
    }
    if (g_pool.total_threads.fetch_add(1, relaxed) >= kMostThreads) {
      discount_idle_thread();
      return kOk;
    }
    if (create_thread_nopreempt_raw(sched_work_thread, nullptr, nullptr) != kOk) {
      discount_idle_thread();
      return TIRN_ERROR("Create sched work thread fail."), kFail;
    }
  }
  return kOk;
}

void* sched_work_thread(void*) {
  Worker worker;
  unblock_wake_ups();
  TIRN_DEBUG("Sched work thread running.");
  kesa_set_process_name("kesa_schedwork");
  kesa_setCurThreadStrategy(KESA_STRATEGY_MANAGE);
  kesa_add_sched_work_timeout_check(kesa_thread_get_knl_tid(), &worker.slot);
  run_with_cleanup([&worker] { serve(worker); }, [&worker] { leave(worker); });
  return nullptr;
}
