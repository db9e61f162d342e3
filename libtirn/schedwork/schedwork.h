// The state of scheduled work, of which there is one in the process.
#ifndef TIRN_SCHEDWORK_SCHEDWORK_H
#define TIRN_SCHEDWORK_SCHEDWORK_H

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "libtirn/base/fork.h"
#include "libtirn/base/once.h"
#include "tirn/lock.h"
#include "tirn/schedwork.h"
#include "tirn/semaphore.h"

namespace tirn::schedwork {

inline constexpr uint32_t kSlots = KESA_SCHED_WORK_THREADS;
inline constexpr uint32_t kNoSlot = ~uint32_t{0};

static_assert(offsetof(kesa_sched_work, link) == 8 && sizeof(kesa_sched_work) == 40);
static_assert(offsetof(kesa_heal_task, words) == 40 && offsetof(kesa_heal_task, last) == 72);

// Changed under its mutex. Atomic, since the checks look at a slot without the mutex first.
struct WorkerSlot {
  std::atomic<uint64_t> start_jiffies{0};  // 0 while no work with a time limit runs
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  std::atomic<uint8_t> used{0};
  std::atomic<uint32_t> limit_jiffies{0};
  std::atomic<uint32_t> tid{0};
  std::atomic<uint32_t> pid{0};
};

inline constexpr size_t kCacheLine = 64;

// The counts, the queue, the semaphore and what is mostly read lie in cache lines of their own. The initial values
// are valid: a pool that could not be set up is merely empty.
struct Pool {
  Once init_mutex;  // one start or end of the pool at a time
  std::atomic<uint32_t> inited{0};
  std::atomic<uint32_t> threads_started{0};
  kesa_spinlock destroy_lock = KESA_SPINLOCK_INIT;  // guards `destroying` and the reset of the counts
  std::atomic<uint32_t> destroying{0};
  alignas(kCacheLine) std::atomic<int32_t> total_threads{0};
  std::atomic<int32_t> free_threads{0};
  std::atomic<uint64_t> started_works{0};
  std::atomic<uint64_t> finished_works{0};
  // KesaSchedWorkShow may take the list's head for the link of a record: it then reads `list_lock`, before the head,
  // and the bytes up to `work_sem`.
  alignas(kCacheLine) kesa_spinlock list_lock = KESA_SPINLOCK_INIT;
  kesa_list_head work_list{&work_list, &work_list};
  alignas(kCacheLine) kesa_sem_enhance work_sem{KESA_SPINLOCK_INIT, 0, {&work_sem.waiters, &work_sem.waiters}};
  alignas(kCacheLine) std::atomic<uint32_t> generation{0};  // raised by each end of the pool
  kesa_heal_task heal_task{};
  std::atomic<uint64_t> last_check_jiffies{0};  // when the three minutes began; 0 before the first check
  std::atomic<uint64_t> last_started_works{0};
  WorkerSlot slots[kSlots];
};

extern Pool g_pool;
extern ForkSteps g_fork_steps;

// Gives each queued record its poison values. None is run.
void drop_works();

// Makes all slots free and their mutexes new.
void renew_slots();

}  // namespace tirn::schedwork

#endif
