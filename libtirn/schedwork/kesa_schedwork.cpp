// The queue of scheduled work, and the calls for work records.
#include <unistd.h>

#include <cerrno>

#include "libtirn/base/list_check.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/base/spinlock.h"
#include "libtirn/schedwork/schedwork.h"

using namespace tirn;
using namespace tirn::schedwork;

namespace {

// The pointers that are printed as numbers.
unsigned long long address_of(const void* object) { return reinterpret_cast<uintptr_t>(object); }

const kesa_sched_work* work_of(const list::Link* link) {
  return reinterpret_cast<const kesa_sched_work*>(reinterpret_cast<const char*>(link) -
                                                  offsetof(kesa_sched_work, link));
}

void poison(list::Link* link) {
  link->next = KESA_LIST_POISON_NEXT;
  link->prev = KESA_LIST_POISON_PREV;
}

bool is_poisoned(const list::Link& link) {
  return link.next == KESA_LIST_POISON_NEXT && link.prev == KESA_LIST_POISON_PREV;
}

// Called with the queue locked.
kesa_sched_work* take_first(const list::Reporter& reporter) {
  if (list::is_empty(&g_pool.work_list)) {
    return nullptr;
  }
  list::Link* const first = g_pool.work_list.next;
  list::check(first, reporter);
  list::Link* const second = first->next;
  list::unlink(first);
  list::step_over(&g_pool.work_list, first, second);
  poison(first);
  return const_cast<kesa_sched_work*>(work_of(first));
}

// Queues the record, unless it is queued already, and returns whether it did. There is no cancellation point between
// this and kesa_sem_enhance_up, so no record is left without its unit.
bool queue(kesa_sched_work& work) {
  lock_spinlock(g_pool.list_lock);
  const bool can_be_queued = is_poisoned(work.link);
  if (can_be_queued) {
    list::check(&g_pool.work_list, {"kesa_sched_add_work", KesaSchedWorkShow});
    list::append(&g_pool.work_list, &work.link);
  }
  unlock_spinlock(g_pool.list_lock);
  return can_be_queued;
}

bool is_started() { return g_pool.threads_started.load(std::memory_order_acquire) != 0; }

constexpr size_t kNameSize = 256;

// Writes the name of what stands at the address. No address has a known name, so the text is empty.
const char* name_of(const void*, char (&text)[kNameSize]) {
  text[0] = '\0';
  return text;
}

}  // namespace

namespace tirn::schedwork {

void drop_works() {
  lock_spinlock(g_pool.list_lock);
  while (take_first({"sched_work_destroy", KesaSchedWorkShow}) != nullptr) {
  }
  unlock_spinlock(g_pool.list_lock);
}

}  // namespace tirn::schedwork

void kesa_sched_init_work(kesa_sched_work* work, kesa_sched_work_fn handler, void* data) {
  work->pid = getpid();
  work->timeout = 0;
  poison(&work->link);
  work->data = data;
  work->handler = handler;
}

int kesa_set_sched_work_timeout(kesa_sched_work* work, uint32_t seconds) {
  if (work == nullptr || seconds < KESA_SCHED_WORK_TIMEOUT_MIN) {
    return TIRN_ERROR("param 0x%llx, timeout %u.", address_of(work), seconds), kFail;
  }
  work->timeout = seconds;
  return kOk;
}

int kesa_sched_add_work(kesa_sched_work* work) {
  if (work == nullptr) {
    return TIRN_ERROR("The v_pstWork is equal NULL."), kFail;
  }
  if (!is_started() && sched_work_init() != kOk) [[unlikely]] {
    return TIRN_ERROR("Adding work failed, as the result of initing sched_work failed"), kFail;
  }
  // Only reported: the record is queued all the same. A load is as good as one under the lock, since the pool's end
  // may begin right after either.
  if (g_pool.destroying.load(std::memory_order_relaxed) != 0) [[unlikely]] {
    TIRN_ERROR("In destroying, adding v_pstWork failed.");
  }
  if (!queue(*work)) [[unlikely]] {
    return TIRN_ERROR("Work in list is not initial, PID = (%d)", work->pid), kFail;
  }
  return kesa_sem_enhance_up(&g_pool.work_sem);
}

int kesa_sched_delete_work(kesa_sched_work* work) {
  if (work == nullptr) {
    return TIRN_ERROR("The v_pstWork is equal NULL."), kFail;
  }
  if (!is_started()) {
    return TIRN_ERROR("Deleting work failed, as the sched_work not inited."), kFail;
  }
  lock_spinlock(g_pool.list_lock);
  const bool is_queued = !is_poisoned(work->link);
  if (is_queued) {
    list::check(&work->link, {__func__, KesaSchedWorkShow});
    list::unlink(&work->link);
    poison(&work->link);
  }
  unlock_spinlock(g_pool.list_lock);
  return is_queued ? kOk : -ENOANO;
}

kesa_sched_work* sched_work_select_task() {
  lock_spinlock(g_pool.list_lock);
  kesa_sched_work* const work = take_first({__func__, KesaSchedWorkShow});
  unlock_spinlock(g_pool.list_lock);
  return work;
}

void KesaSchedWorkShow(const kesa_list_head* node) {
  const kesa_sched_work& work = *work_of(node);
  char text[kNameSize];
  TIRN_INFO("Sched work entry:%s, schedWork pid:%d, sched work pData:%s, sched work process         function: %s",
            name_of(node, text), work.pid, name_of(work.data, text),
            name_of(reinterpret_cast<const void*>(work.handler), text));
}
