// The pool of threads that are started beforehand: a job is handed over to a sleeping worker.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "libtirn/base/cancellation.h"
#include "libtirn/base/fork.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/thread/thrd_create.h"
#include "libtirn/thread/thrd_entry.h"
#include "libtirn/thread/thrd_table.h"
#include "tirn/sched.h"

using namespace tirn;
using namespace tirn::thread;

namespace {

// Only tested for 0: the creator's store and the spawner's addition may overwrite each other.
constinit std::atomic<uint32_t> g_size{0};
constinit std::atomic<uint32_t> g_stop{0};
constinit std::atomic<uint32_t> g_remainder{0};  // workers that the spawner provides, including itself
pthread_attr_t g_attributes;
constinit std::atomic<bool> g_has_attributes{false};

// A forked child has no workers and may create a pool of its own.
void forget_pool(ForkSteps&) {
  g_size.store(0, std::memory_order_relaxed);
  g_stop.store(0, std::memory_order_relaxed);
  g_has_attributes.store(false, std::memory_order_relaxed);
}
constinit ForkSteps g_fork_steps(forget_pool);

std::atomic_ref<kesa_thread_fn> job_of(kesa_thread_s& record) { return std::atomic_ref(record.fn); }

pthread_attr_t* pool_attributes() {
  return g_has_attributes.load(std::memory_order_relaxed) ? &g_attributes : nullptr;
}

void sleep_as_idle(kesa_thread_s& record) {
  kesa_thrd_setname("OSThrdPoolNull");
  set_state(record, THRD_SLOT_POOL_IDLE);
}

// Runs a job, then resets the thread's binding and strategy, so that the next job does not inherit the changes of
// this one. Returns false if the job has given back the worker's record: the thread is then no longer a worker.
bool run_job(kesa_thread_s& record, kesa_thread_fn job) {
  kesa_thrd_setname("OSThrdPoolRun");
  // A cancellation during a job ends the worker; one sent while idle stays pending and cancels the next job.
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
  job(record.arg);
  pthread_testcancel();
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
  if (m_current_thread != &record) {
    return false;
  }
  job_of(record).store(nullptr, std::memory_order_relaxed);
  sleep_as_idle(record);
  kesa_thrd_bindAllCfgCpu();
  apply_default_strategy();
  return true;
}

// Marks an idle worker as dead and returns whether it did. A worker that was bound before the end of the pool still
// has to run its job.
bool leave_pool(kesa_thread_s& record) {
  uint32_t state = THRD_SLOT_POOL_IDLE;
  return state_of(*record.slot).compare_exchange_strong(state, THRD_SLOT_DEAD, std::memory_order_acq_rel);
}

// Runs the jobs that the worker gets, and sleeps without one, until the pool ends or a job has given back the record.
void work(kesa_thread_s& record) {
  for (;;) {
    if (g_stop.load(std::memory_order_relaxed) != 0 && leave_pool(record)) {
      return;
    }
    const kesa_thread_fn job = job_of(record).load(std::memory_order_acquire);
    if (job == nullptr) {
      sem_wait(&record.wake);
    } else if (!run_job(record, job)) {
      return;
    }
  }
}

void* thrd_pool_worker(void* argument) {
  auto& record = *static_cast<kesa_thread_s*>(argument);
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  begin_thread(record);
  apply_default_strategy();
  set_state(record, THRD_SLOT_RUNNING);
  sleep_as_idle(record);
  // A read-modify-write, ordered against the one in `wake_workers`: either it sees this worker idle or we see
  // `g_stop`. Later loads need no order: a worker that `wake_workers` has found is woken through its semaphore.
  g_stop.fetch_or(0, std::memory_order_acq_rel);
  // The record is given back also if the thread ends inside a job.
  run_with_cleanup([&record] { work(record); }, end_current);
  return nullptr;
}

// Changes the worker from idle to bound and returns whether it did. Of several threads that want the worker, this
// decides which one gets it.
bool bind_worker(kesa_thread_s& record) {
  uint32_t state = THRD_SLOT_POOL_IDLE;
  return state_of(*record.slot)
      .compare_exchange_strong(state, THRD_SLOT_POOL_BOUND, std::memory_order_acq_rel, std::memory_order_relaxed);
}

}  // namespace

int create_thread_from_thread_pool(kesa_thread_fn fn, void* arg, pthread_t* id_out) {
  if (fn == nullptr || g_size.load(std::memory_order_relaxed) == 0 || g_stop.load(std::memory_order_relaxed) != 0) {
    return kFail;
  }
  const HeldRecord worker = find_record(THRD_SLOT_POOL_IDLE, bind_worker);
  if (worker == nullptr) {
    return kFail;
  }
  worker->arg = arg;
  job_of(*worker).store(fn, std::memory_order_release);  // publishes the argument; pairs with the acquire in work()
  if (id_out != nullptr) {
    *id_out = worker->thread;
  }
  sem_post(&worker->wake);
  return kOk;
}

namespace {

uint32_t start_workers(uint32_t count) {
  uint32_t made = 0;
  for (uint32_t i = 0; i < count; ++i) {
    made += create_thread_pool_base(thrd_pool_worker, pool_attributes()) == kOk ? 1 : 0;
  }
  return made;
}

void destroy_attributes() {
  if (pthread_attr_t* const attributes = pool_attributes(); attributes != nullptr) {
    pthread_attr_destroy(attributes);
  }
}

// Starts the remaining workers, so that the creator of a large pool does not wait for them, and then becomes a worker
// itself.
void* thrd_pool_spawner(void* record) {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  const uint32_t made = start_workers(g_remainder.load(std::memory_order_relaxed) - 1);
  g_size.store(g_size.load(std::memory_order_relaxed) + made, std::memory_order_relaxed);
  destroy_attributes();
  return thrd_pool_worker(record);
}

void set_small_stacks() {
  const int result = init_small_stack(&g_attributes);
  if (result != 0) {
    TIRN_INFO_AS("kesa_thread_pool_create", "Set thread stack size failed, ret:%d, errno(%d:%s).", result, errno,
                 strerrordesc_np(errno));
    return;
  }
  g_has_attributes.store(true, std::memory_order_relaxed);
}

uint32_t wake_workers() {
  uint32_t woken = 0;
  g_stop.fetch_or(1, std::memory_order_acq_rel);  // see thrd_pool_worker
  for_each_record(THRD_SLOT_POOL_IDLE | THRD_SLOT_POOL_BOUND, [&woken](const HeldRecord& record) {
    sem_post(&record->wake);
    ++woken;
  });
  return woken;
}

}  // namespace

uint32_t kesa_thread_pool_create(uint32_t count) {
  kesa_thrd_module_init();
  if (count == 0) {
    return 0;
  }
  count = std::min(count, KESA_THREAD_SLOTS);
  g_fork_steps.follow();
  const NoCancellation guard;  // nothing could complete a half-made pool
  uint32_t none = 0;
  if (!g_size.compare_exchange_strong(none, count, std::memory_order_relaxed)) {
    return TIRN_INFO("OS thread pool just allowed create once %u.", count), 0;
  }
  if (kesa_get_instant_map_flag() == 1) {
    set_small_stacks();
  }
  // The caller starts a quarter of the workers, the spawner the rest (all if fewer than 4).
  constexpr uint32_t kShare = 4;
  const uint32_t direct = count / kShare;
  uint32_t made = start_workers(direct);
  g_remainder.store(count - direct, std::memory_order_relaxed);
  if (create_thread_pool_base(thrd_pool_spawner, pool_attributes()) == kOk) {
    ++made;
  } else {
    destroy_attributes();
  }
  if (count == 1 && made == 1) {
    return 1;
  }
  TIRN_INFO("Create OS thread pool %u, success %u.", count, made);
  if (made != 0) {  // a size of 0 would allow a second pool
    g_size.store(made, std::memory_order_relaxed);
  }
  return made;
}

uint32_t kesa_thread_pool_destroy() {
  if (g_size.load(std::memory_order_relaxed) == 0) {
    return 0;
  }
  constexpr uint32_t kPause = 10;  // milliseconds
  const NoCancellation guard;
  const uint32_t first = wake_workers();
  kesa_msleep(kPause);
  const uint32_t second = wake_workers();
  return TIRN_INFO("TBA:res1 %d, res2 %d.", static_cast<int>(first), static_cast<int>(second)), second;
}
