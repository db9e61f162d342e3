// The enhanced semaphore, which serves its waiters in order of arrival.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>

#include "libtirn/base/guard.h"
#include "libtirn/base/list.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/base/spinlock.h"
#include "tirn/sched.h"
#include "tirn/semaphore.h"

using namespace tirn;

namespace {

constexpr int64_t kJiffy = 4;  // milliseconds
constexpr int64_t kForever = INT64_MAX;
constexpr char kUp[] = "kesa_sem_enhance_up";  // the log lines of a wake-up are written under this name
constexpr uint32_t kWaiting = 1;
constexpr uint32_t kServed = 0;

enum class Mode { kInterruptible = 1, kUninterruptible = 2 };

// A waiter, on the stack of its thread. The link comes first, so that its address is that of the waiter.
struct Waiter {
  kesa_list_head link;
  uint32_t tid;
  uint32_t state;  // read by the kernel side while the thread sleeps; written under the lock
};

static_assert(offsetof(kesa_sem_enhance, count) == 24 && offsetof(kesa_sem_enhance, waiters) == 32);
static_assert(offsetof(Waiter, tid) == 16 && offsetof(Waiter, state) == 20);

std::atomic_ref<uint32_t> state_of(Waiter& waiter) { return std::atomic_ref(waiter.state); }

Waiter& waiter_of(kesa_list_head* link) { return *reinterpret_cast<Waiter*>(link); }

unsigned long long address_of(const void* object) { return reinterpret_cast<uintptr_t>(object); }

// Writes two log lines: one to module 0 for the node's maintainers, without a level test, and then the library's own.
#define TELL_WAKE_UP(infra, own, ...)                                        \
  do {                                                                       \
    TIRN_LOG_WRITE(0, kInfo, kFile.text, __LINE__, kUp, infra, __VA_ARGS__); \
    TIRN_INFO_AS(kUp, own, __VA_ARGS__);                                     \
  } while (0)

// Called with the lock held, and returns with it held. Releases it while it sleeps.
__attribute__((noinline)) int down_common_inner(kesa_sem_enhance& sem, Mode mode, int64_t timeout) {
  Waiter waiter{{}, static_cast<uint32_t>(gettid()), kWaiting};
  const NoCancellation guard;
  list::push_back(&sem.waiters, &waiter.link);
  while (true) {
    unlock_spinlock(sem.lock);
    const int64_t rest = kesa_wait_comm(&waiter.state, timeout);
    lock_spinlock(sem.lock);
    // Test this first, so that a unit that came together with a signal or the timeout is not lost.
    if (state_of(waiter).load(std::memory_order_relaxed) == kServed) {
      return kOk;
    }
    if (rest == 0) {
      list::detach(&waiter.link);
      return -ENODATA;
    }
    if (mode == Mode::kInterruptible) {
      list::detach(&waiter.link);
      return -EINTR;
    }
  }
}

int down(kesa_sem_enhance& sem, Mode mode, int64_t timeout) {
  int result = kOk;
  lock_spinlock(sem.lock);
  if (sem.count >= 1) {
    --sem.count;
  } else {
    result = down_common_inner(sem, mode, timeout);
  }
  unlock_spinlock(sem.lock);
  return result;
}

// Hands a unit to the oldest waiter, stores the id of its thread, which the caller has to wake, and returns true.
// Without a waiter the unit becomes free, and the result is false.
inline bool give_unit(kesa_sem_enhance& sem, uint32_t& tid) {
  bool is_handed_over = false;
  lock_spinlock(sem.lock);
  if (list::is_empty(&sem.waiters)) {
    sem.count += sem.count < INT32_MAX ? 1 : 0;
  } else {
    Waiter& waiter = waiter_of(sem.waiters.next);
    is_handed_over = true;
    tid = waiter.tid;
    list::detach(&waiter.link);
    // Pairs with the acquire in kesa_wait_comm and with the kernel side's read of the word. The waiter cannot end
    // before: it needs the lock.
    state_of(waiter).store(kServed, std::memory_order_release);
  }
  unlock_spinlock(sem.lock);
  return is_handed_over;
}

// Wakes a waiter. Tries again as long as the kernel's queue of signals is full: a waiter without a timeout has no
// other way of being woken.
__attribute__((noinline)) int wake(const kesa_sem_enhance* sem, uint32_t tid) {
  int result = kesa_wake_up_process(tid);
  if (result == 0) {
    return 0;
  }
  const NoCancellation guard;
  TELL_WAKE_UP("[Infra]Wake up sem(0x%llx) waiter tid(%u) fail ret(%d).",
               "Wake up sem(0x%llx) waiter tid(%u) fail ret(%d).", address_of(sem), tid, result);
  while (result == EAGAIN) {
    result = kesa_wake_up_process(tid);
    if (result == 0) {
      TELL_WAKE_UP("[Infra]Retry wake up sem(0x%llx) waiter tid(%u) sucess.",
                   "Retry wake up sem(0x%llx) waiter tid(%u) sucess.", address_of(sem), tid);
      return 0;
    }
    kesa_usleep(1);
  }
  TELL_WAKE_UP("[Infra]Retry wake up sem(0x%llx) waiter tid(%u) fail ret(%d).",
               "Retry wake up sem(0x%llx) waiter tid(%u) fail ret(%d).", address_of(sem), tid, result);
  return result;
}

}  // namespace

int kesa_sem_enhance_init(kesa_sem_enhance* sem, uint32_t count) {
  kesa_spinlock_init(&sem->lock);
  sem->count = static_cast<int32_t>(std::min<uint32_t>(count, INT32_MAX));
  list::init(&sem->waiters);
  return kOk;
}

void kesa_sem_enhance_down(kesa_sem_enhance* sem) { down(*sem, Mode::kUninterruptible, kForever); }

int kesa_sem_enhance_down_interruptible(kesa_sem_enhance* sem) { return down(*sem, Mode::kInterruptible, kForever); }

int kesa_sem_enhance_down_timeout(kesa_sem_enhance* sem, int64_t timeout) {
  return down(*sem, Mode::kInterruptible, timeout / kJiffy);
}

int kesa_sem_enhance_up(kesa_sem_enhance* sem) {
  uint32_t waiter;
  return give_unit(*sem, waiter) ? wake(sem, waiter) : 0;
}

int kesa_sem_enhance_destroy(kesa_sem_enhance*) { return kOk; }

void kesa_sem_enhance_show(kesa_sem_enhance* sem) {
  const NoCancellation guard;  // a cancelled thread would leave the lock held
  kesa_spinlock_lock(&sem->lock);
  TIRN_INFO("TBTIRN:sem 0x%llx cnt %d", address_of(sem), sem->count);
  for (kesa_list_head* link = sem->waiters.next; link != &sem->waiters; link = link->next) {
    Waiter& waiter = waiter_of(link);
    TIRN_INFO("TBTIRN:sem %p cnt %d waiterTid %d status %d cur 0x%llx next 0x%llx pre 0x%llx",
              static_cast<void*>(sem), sem->count, static_cast<int>(waiter.tid),
              static_cast<int>(state_of(waiter).load(std::memory_order_relaxed)), address_of(link),
              address_of(link->next), address_of(link->prev));
  }
  kesa_spinlock_unlock(&sem->lock);
}
