// The worker slots, and the checks for work that hangs.
#include <algorithm>

#include "libtirn/base/bounds.h"
#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/schedwork/schedwork.h"
#include "tirn/jiffies.h"
#include "tirn/process.h"
#include "tirn/thread.h"

using namespace tirn;
using namespace tirn::schedwork;

namespace {

constexpr auto relaxed = std::memory_order_relaxed;
constexpr uint64_t kStuck = 180 * KESA_JIFFIES_PER_SECOND;
constexpr int kMostReports = 4;  // in one check of the whole pool

// Locks a slot. A forked child finds all slots unlocked.
class SlotLock {
 public:
  explicit SlotLock(WorkerSlot& slot) : lock_(followed(slot.mutex)) {}

 private:
  static pthread_mutex_t& followed(pthread_mutex_t& mutex) {
    g_fork_steps.follow();
    return mutex;
  }

  const NoCancellation guard_;
  const MutexLock lock_;
};

void store(WorkerSlot& slot, uint64_t start, uint32_t limit, uint32_t pid) {
  slot.start_jiffies.store(start, relaxed);
  slot.limit_jiffies.store(limit, relaxed);
  slot.pid.store(pid, relaxed);
}

bool claim(WorkerSlot& slot, uint32_t tid) {
  if (slot.used.load(relaxed) != 0) {
    return false;
  }
  const SlotLock lock(slot);
  const bool is_free = slot.used.load(relaxed) == 0;
  if (is_free) {
    store(slot, 0, 0, 0);
    slot.tid.store(tid, relaxed);
    slot.used.store(1, relaxed);
  }
  return is_free;
}

bool is_past_limit(const WorkerSlot& slot) {
  const uint64_t start = slot.start_jiffies.load(relaxed);
  return slot.used.load(relaxed) != 0 && start != 0 && kesa_get_jiffies() - start > slot.limit_jiffies.load(relaxed);
}

}  // namespace

namespace tirn::schedwork {

void renew_slots() {
  for (WorkerSlot& slot : g_pool.slots) {
    kesa_mtx_init(&slot.mutex, 0);
    store(slot, 0, 0, 0);
    slot.used.store(0, relaxed);
  }
}

}  // namespace tirn::schedwork

int kesa_add_sched_work_timeout_check(uint32_t tid, uint32_t* index) {
  if (index == nullptr) {
    return TIRN_ERROR("Invalid index, param null."), kFail;
  }
  for (uint32_t i = 0; i < kSlots; ++i) {
    if (claim(g_pool.slots[i], tid)) {
      *index = i;
      return kOk;
    }
  }
  return TIRN_ERROR("can not find spare index for tid %u.", tid), kFail;
}

void kesa_update_sched_work_timeout_info(uint32_t index, uint64_t start, uint32_t limit, uint32_t pid) {
  if (index < kSlots) {
    const SlotLock lock(g_pool.slots[index]);
    store(g_pool.slots[index], start, limit, pid);
  }
}

void kesa_del_sched_work_timeout_check(uint32_t index) {
  if (index >= kSlots) {
    return TIRN_ERROR("Invalid index (%u).\n", index);
  }
  WorkerSlot& slot = g_pool.slots[index];
  const SlotLock lock(slot);
  slot.start_jiffies.store(0, relaxed);
  slot.used.store(0, relaxed);
  slot.limit_jiffies.store(0, relaxed);
}

void sched_work_run_task(kesa_sched_work* work, uint32_t index) {
  if (work->handler == nullptr) {
    return TIRN_ERROR("NULL sched work data handler, PID = (%d).", work->pid);
  }
  if (work->timeout == 0) {
    work->handler(work);
    return;
  }
  const uint64_t limit = uint64_t{work->timeout} * KESA_JIFFIES_PER_SECOND;
  kesa_update_sched_work_timeout_info(index, kesa_get_jiffies(),
                                      static_cast<uint32_t>(std::min<uint64_t>(limit, UINT32_MAX)),
                                      static_cast<uint32_t>(work->pid));
  work->handler(work);
  kesa_update_sched_work_timeout_info(index, 0, 0, 0);
}

int kesa_sched_work_timeout_theck() {
  for (WorkerSlot& slot : g_pool.slots) {
    if (!is_past_limit(slot)) {
      continue;
    }
    uint32_t tid = 0;
    uint32_t pid = 0;
    {
      const SlotLock lock(slot);
      if (!is_past_limit(slot)) {
        continue;
      }
      tid = slot.tid.load(relaxed);
      pid = slot.pid.load(relaxed);
    }
    TIRN_WARNING("sched work timeout: tid %u, pid %u.", tid, pid);
    sched_work_dump_thread_stack(tid);
    return 1;
  }
  return 0;
}

int kesa_is_all_work_timeout() {
  const uint64_t started = g_pool.started_works.load(relaxed);
  const auto running = static_cast<int64_t>(started - g_pool.finished_works.load(relaxed));
  const uint64_t last = g_pool.last_check_jiffies.load(std::memory_order_acquire);
  const uint64_t now = kesa_get_jiffies();  // after `last`, which another caller may be storing
  if (last == 0 || started != g_pool.last_started_works.load(relaxed) || running < int64_t{kSlots}) {
    g_pool.last_check_jiffies.store(now, std::memory_order_release);
    g_pool.last_started_works.store(started, relaxed);
    return 0;
  }
  if (now - last < kStuck) {
    return 0;
  }
  int reports = 0;
  for (const WorkerSlot& slot : g_pool.slots) {
    if (slot.used.load(relaxed) == 0) {
      continue;
    }
    if (++reports > kMostReports) {
      break;
    }
    const uint32_t tid = slot.tid.load(relaxed);
    TIRN_ERROR("sched work timeout: tid %u, pid %u. ", tid, slot.pid.load(relaxed));
    sched_work_dump_thread_stack(tid);
  }
  return 1;
}

void kesa_heal_check_callback(kesa_heal_check* check) {
  if (check == nullptr) {
    return TIRN_ERROR("Invalid param");
  }
  kesa_sched_work_timeout_theck();
  check->verdict = kesa_is_all_work_timeout() == 0 ? 1 : 0;
}

// The kernel side prints the stack, which a thread that hangs in a system call or on a lock cannot do itself.
void sched_work_dump_thread_stack(uint32_t tid) { kesa_thrd_dump_thread_stack_if_not_running(tid); }

void kesa_init_sched_work_heal_task_info() {
  kesa_heal_task& task = g_pool.heal_task;
  task = {{}, kesa_heal_check_callback, {0, 0}, {1, 5, 5}, 0};
  strcpy_s(task.name, sizeof task.name, "kesa_schedwork_timeout_check");
}

int kesa_get_sched_work_heal_task_info(kesa_heal_task** heal_task, uint32_t* task_num) {
  if (heal_task == nullptr || task_num == nullptr) {
    const auto number = [](const void* pointer) -> unsigned long long {
      return reinterpret_cast<uintptr_t>(pointer);
    };
    return TIRN_ERROR("Invalid param, heal_task(0x%llx), task_num(0x%llx).", number(heal_task), number(task_num)),
           kFail;
  }
  *heal_task = &g_pool.heal_task;
  *task_num = 1;
  return kOk;
}
