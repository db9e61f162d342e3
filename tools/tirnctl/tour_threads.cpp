// The stops of the tour about threads, the pools, locks and semaphores.
#include <pthread.h>
#include <tirn/tirn.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "tour.h"

namespace tirnctl {
namespace {

constexpr uint32_t kJobs = 1000;

// Each job or waiter adds a unit here when it has done what the stop waits for.
kesa_sem_enhance g_done;

bool wait_for(uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) {
    int result;
    do {
      result = kesa_sem_enhance_down_timeout(&g_done, 10000);
    } while (result == -EINTR);  // a late signal of an earlier unit
    if (result != 0) {
      return false;
    }
  }
  return true;
}

void* short_job(void*) {
  kesa_sem_enhance_up(&g_done);
  return nullptr;
}

void* io_thread(void* name) {
  kesa_setCurThreadStrategy(KESA_STRATEGY_IO);
  kesa_thrd_setname("%s", static_cast<const char*>(name));
  kesa_sem_enhance_up(&g_done);
  kesa_msleep(50);
  return nullptr;
}

// Runs jobs one after the other. Returns the microseconds for each, or 0 if one was not run.
template <typename Start>
double time_of_a_job(Start start) {
  const uint64_t begin = now();
  for (uint32_t i = 0; i < kJobs; ++i) {
    if (start() != 0 || !wait_for(1)) {
      return 0;
    }
  }
  return static_cast<double>(now() - begin) / 1000 / kJobs;
}

// The tour holds this lock for longer than the contender spins, so that the contender has to sleep.
kesa_spinlock g_lock;
void* contender(void*) {
  kesa_spinlock_lock(&g_lock);
  kesa_spinlock_unlock(&g_lock);
  kesa_sem_enhance_up(&g_done);
  return nullptr;
}

kesa_sem_enhance g_turn;
std::atomic<int> g_order[8];
std::atomic<uint32_t> g_released{0};

void* queue_up(void* number) {
  kesa_sem_enhance_down(&g_turn);
  g_order[g_released++] = static_cast<int>(reinterpret_cast<intptr_t>(number));
  kesa_sem_enhance_up(&g_done);
  return nullptr;
}

// Counts the workers of scheduled work among the threads that kesa_thrd_list prints.
uint32_t g_workers;
int count_worker(const char* format, ...) {
  char line[128];
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  g_workers += std::strstr(line, "kesa_schedwork") != nullptr ? 1 : 0;
  return length;
}

uint32_t workers() {
  g_workers = 0;
  kesa_thrd_list(count_worker, 0, 0, 0, 0);
  return g_workers;
}

std::atomic<bool> g_is_over{false};
int wait_for_the_end(kesa_sched_work*) {
  kesa_sem_enhance_up(&g_done);
  while (!g_is_over) {
    kesa_msleep(1);
  }
  return 0;
}

}  // namespace

bool show_threads() {
  kesa_sem_enhance_init(&g_done, 0);
  const KesaThreadStrategyCfg usual{0, "0-1023"}, io{2, "0"};
  if (kesa_initThreadStrategy(KESA_STRATEGY_DEFAULT, &usual) != 0 ||
      kesa_initThreadStrategy(KESA_STRATEGY_IO, &io) != 0) {
    return false;
  }
  kesa_showThreadStrategyDbg(print_indented);
  static char names[2][16] = {"disk reader", "disk writer"};
  if (kesa_thrd_create(io_thread, names[0], nullptr) != 0 || kesa_thrd_create(io_thread, names[1], nullptr) != 0 ||
      !wait_for(2)) {
    return false;
  }
  std::printf("\n");
  kesa_thrd_list(print_indented, 0, 0, 0, 0);
  kesa_msleep(60);
  return true;
}

bool show_pool() {
  const double started = time_of_a_job([] { return create_thread_raw(short_job, nullptr, nullptr); });
  if (kesa_thread_pool_create(4) == 0) {
    return false;
  }
  kesa_msleep(20);
  const double pooled = time_of_a_job([] {
    while (create_thread_from_thread_pool(short_job, nullptr, nullptr) != 0) {
      kesa_yield();
    }
    return 0;
  });
  std::printf("    a thread for each of %u jobs  %7.1f us a job\n", kJobs, started);
  std::printf("    a worker of the pool          %7.1f us a job\n", pooled);
  return started > 0 && pooled > 0;
}

bool show_scheduled_work() {
  constexpr uint32_t kItems = 20, kMostIdle = 8;
  static kesa_sched_work items[kItems];
  if (sched_work_init() != 0) {
    return false;
  }
  kesa_msleep(20);
  const uint32_t at_first = workers();
  for (kesa_sched_work& item : items) {
    kesa_sched_init_work(&item, wait_for_the_end, nullptr);
    kesa_sched_add_work(&item);
  }
  if (!wait_for(kItems)) {
    return false;
  }
  const uint32_t under_load = workers();
  g_is_over = true;
  for (int i = 0; i < 1000 && workers() > kMostIdle; ++i) {
    kesa_msleep(5);
  }
  const uint32_t afterwards = workers();
  std::printf("    threads: %u at first, %u while %u items run, %u afterwards\n", at_first, under_load, kItems,
              afterwards);
  std::printf("    An item runs past its limit, which is a second here; programs set 15 or more.\n");
  g_is_over = false;
  items[0].timeout = 1;
  kesa_sched_add_work(&items[0]);
  const bool has_begun = wait_for(1);
  kesa_msleep(1050);
  kesa_heal_check check{};
  kesa_heal_check_callback(&check);
  std::printf("    the verdict on the pool: %s\n", check.verdict != 0 ? "healthy" : "stuck");
  g_is_over = true;
  sched_work_destroy();
  return has_begun && under_load >= kItems && afterwards <= kMostIdle && check.verdict == 1;
}

bool show_locks() {
  kesa_spinlock_init(&g_lock);
  kesa_spinlock_set_flags(KESA_SPINLOCK_FLAG_DUMP);
  std::printf("    A thread waits for a plain spinlock: it sleeps after 100 us, and shows where it stands.\n");
  kesa_spinlock_lock(&g_lock);
  if (kesa_thrd_create(contender, nullptr, nullptr) != 0) {
    return false;
  }
  kesa_usleep(700);
  kesa_spinlock_unlock(&g_lock);
  const bool is_through = wait_for(1);
  kesa_spinlock_clear_flags(KESA_SPINLOCK_FLAG_DUMP);
  std::printf("    A ticket lock is initialised while it is held, and used after it was destroyed.\n");
  kesa_tspinlock ticket{};
  kesa_tspinlock_init(&ticket);
  kesa_tspinlock_lock(&ticket);
  kesa_tspinlock_init(&ticket);
  kesa_tspinlock_destroy(&ticket);
  kesa_tspinlock_lock(&ticket);
  kesa_tspinlock_unlock(&ticket);
  return is_through;
}

bool show_order() {
  constexpr int kWaiters = 8;
  kesa_sem_enhance_init(&g_turn, 0);
  for (intptr_t i = 1; i <= kWaiters; ++i) {
    if (create_thread_raw(queue_up, reinterpret_cast<void*>(i), nullptr) != 0) {
      return false;
    }
    kesa_msleep(3);
  }
  for (int i = 0; i < kWaiters; ++i) {
    kesa_sem_enhance_up(&g_turn);
    if (!wait_for(1)) {
      return false;
    }
  }
  std::printf("    came 1 2 3 4 5 6 7 8, were released");
  bool is_in_order = true;
  for (int i = 0; i < kWaiters; ++i) {
    std::printf(" %d", g_order[i].load());
    is_in_order &= g_order[i] == i + 1;
  }
  std::printf("\n");
  return is_in_order;
}

}  // namespace tirnctl
