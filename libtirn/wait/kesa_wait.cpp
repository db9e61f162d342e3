// Wait queues: threads sleep on a queue until another one wakes them all.
#include <atomic>

#include "libtirn/base/guard.h"
#include "libtirn/base/list.h"
#include "libtirn/base/result.h"
#include "tirn/sched.h"
#include "tirn/wait.h"

using namespace tirn;

namespace {

constexpr uint32_t kWaiting = 1;
constexpr uint32_t kWoken = 0;
constexpr uint32_t kPause = 10;  // microseconds between two attempts to take the lock

static_assert(offsetof(kesa_wait_queue_head, list) == 24);
static_assert(offsetof(kesa_wait_queue_entry, state) == 4 && offsetof(kesa_wait_queue_entry, link) == 16);

std::atomic_ref<uint32_t> state_of(kesa_wait_queue_entry& entry) { return std::atomic_ref(entry.state); }

kesa_wait_queue_entry& entry_of(kesa_list_head* link) {
  return *reinterpret_cast<kesa_wait_queue_entry*>(reinterpret_cast<char*>(link) -
                                                   offsetof(kesa_wait_queue_entry, link));
}

}  // namespace

int prepare_to_wait(kesa_wait_queue_head* head, kesa_wait_queue_entry* entry) {
  kesa_spinlock_lock(&head->lock);
  state_of(*entry).store(kWaiting, std::memory_order_relaxed);
  if (list::is_detached(&entry->link)) {
    list::push_front(&head->list, &entry->link);
  }
  kesa_spinlock_unlock(&head->lock);
  return kOk;
}

void before_wait() {}

int sched_wait(kesa_wait_queue_entry* entry) { return kesa_wait_interruptible(&entry->state); }

int64_t sched_wait_timeout(kesa_wait_queue_entry* entry, int64_t timeout) {
  return kesa_wait_comm(&entry->state, timeout);
}

void finish_wait(kesa_wait_queue_head* head, kesa_wait_queue_entry* entry) {
  if (list::is_detached(&entry->link)) {
    return;
  }
  const NoCancellation guard;
  while (!list::is_detached(&entry->link)) {
    if (kesa_spinlock_trylock(&head->lock) == 0) {
      kesa_usleep(kPause);
      continue;
    }
    if (!list::is_detached(&entry->link)) {
      list::detach(&entry->link);
    }
    state_of(*entry).store(kWoken, std::memory_order_relaxed);
    kesa_spinlock_unlock(&head->lock);
  }
}

// Detaches each entry last: the waiter may see that without the lock, and its entry may be gone from then on.
void __wake_up(kesa_wait_queue_head* head) {  // NOLINT(bugprone-reserved-identifier): the name that callers know
  const NoCancellation guard;                 // a cancelled thread would leave the lock held
  kesa_spinlock_lock(&head->lock);
  while (!list::is_empty(&head->list)) {
    kesa_wait_queue_entry& entry = entry_of(head->list.next);
    const uint32_t tid = entry.tid;
    // Pairs with the acquire in kesa_wait_comm and with the kernel side's read of the word.
    state_of(entry).store(kWoken, std::memory_order_release);
    kesa_wake_up_process(tid);
    list::detach(&entry.link);
  }
  kesa_spinlock_unlock(&head->lock);
}

int autoremove_wake_function() { return kOk; }
