#include "tirn/semaphore.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "support/imports.h"
#include "support/log_capture.h"
#include "support/wait_until.h"
#include "sync/waiters.h"
#include "tirn/sched.h"
#include "tirn/thread.h"
#include "tirn/wait.h"

using namespace tirn::test;

TEST(Semaphore, UnitsAreCountedAndTimesRunOut) {
  kesa_sem_enhance sem;
  EXPECT_EQ(kesa_sem_enhance_init(&sem, 2), 0);
  kesa_sem_enhance_down(&sem);
  EXPECT_EQ(kesa_sem_enhance_down_interruptible(&sem), 0);
  for (const int64_t timeout : {INT64_MIN, int64_t{-5}, int64_t{0}, int64_t{3}, int64_t{20}}) {
    EXPECT_EQ(kesa_sem_enhance_down_timeout(&sem, timeout), -ENODATA) << timeout;
  }
  EXPECT_EQ(kesa_sem_enhance_up(&sem), 0);
  EXPECT_EQ(sem.count, 1);
  EXPECT_EQ(kesa_sem_enhance_down_timeout(&sem, 0), 0);
  EXPECT_EQ(sem.count, 0);
  kesa_sem_enhance_init(&sem, UINT32_MAX);
  EXPECT_EQ(kesa_sem_enhance_up(&sem), 0);
  EXPECT_EQ(sem.count, INT32_MAX);
  EXPECT_EQ(kesa_sem_enhance_destroy(&sem), 0);
}

// Each letter says how one sleep in the kernel side ends: `t` by the timeout, `s` by a signal, `x` because there is
// no such call. `T` and `S` are the same, but two units were given meanwhile; the first goes to a thread that has
// waited longer. A signal ends only the interruptible forms. A unit that was given is taken, and no record stays in
// the list.
TEST(Semaphore, EndsOfAWait) {
  static kesa_sem_enhance sem;
  static GhostWaiter earlier;
  static const char* looks;
  static int64_t jiffies;
  kesa_sem_enhance_init(&sem, 0);
  Imports imports(Object::library);
  const auto wait = [](uint64_t, uint64_t, uint64_t timeout, uint64_t rest, uint64_t) -> long {
    EXPECT_EQ(*reinterpret_cast<int64_t*>(timeout), jiffies);
    int state = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    EXPECT_EQ(state, PTHREAD_CANCEL_DISABLE) << "the record of a cancelled waiter would stay in the list";
    const char look = *looks++;
    if (look == 'T' || look == 'S') {
      EXPECT_EQ(kesa_sem_enhance_up(&sem), 0);
      EXPECT_EQ(earlier.state, 0u);
      EXPECT_EQ(kesa_sem_enhance_up(&sem), 0);
    }
    *reinterpret_cast<int64_t*>(rest) = look == 's' || look == 'S' ? 5 : 0;
    return look == 't' || look == 'T' ? 0 : -1;
  };
  imports.redirect("zut_private_call", wait);
  using Down = int (*)(kesa_sem_enhance*);
  const Down plain = [](kesa_sem_enhance* one) { return kesa_sem_enhance_down(one), 0; };
  const Down open = kesa_sem_enhance_down_interruptible;
  const Down timed = [](kesa_sem_enhance* one) { return kesa_sem_enhance_down_timeout(one, 40); };
  for (const auto& [form, ends, result] : {std::tuple{open, "s", -EINTR},
                                           {open, "S", 0},
                                           {open, "x", -ENODATA},
                                           {timed, "s", -EINTR},
                                           {timed, "t", -ENODATA},
                                           {timed, "T", 0},
                                           {timed, "S", 0},
                                           {plain, "sssS", 0},
                                           {plain, "x", 0}}) {
    jiffies = form == timed ? 10 : INT64_MAX;
    looks = ends;
    earlier = {{&sem.waiters, &sem.waiters}, static_cast<uint32_t>(gettid()), 1};
    sem.waiters.next = sem.waiters.prev = &earlier.link;
    EXPECT_EQ(form(&sem), result) << ends;
    EXPECT_TRUE(*looks == '\0' && sem.count == 0) << ends;
    EXPECT_EQ(sem.waiters.prev, earlier.state == 0 ? &sem.waiters : &earlier.link) << ends;
  }
}

// A full queue of signals delays a wake-up. After any other error the unit still belongs to the waiter.
TEST(Semaphore, WakeUpsThatFail) {
  static int tries, first, last;
  Imports imports(Object::library);
  imports.redirect("syscall", [](long, long, long, long) -> long {
    errno = ++tries < 4 ? first : last;
    return errno == 0 ? 0 : -1;
  });
  for (const auto& [error, then, level] :
       {std::tuple{ESRCH, 0, HURN_ERROR}, {EAGAIN, ESRCH, HURN_INFO}, {EAGAIN, 0, HURN_INFO}}) {
    const LogCapture log(HURN_INFO);
    kesa_sem_enhance sem;
    kesa_sem_enhance_init(&sem, 0);
    GhostWaiter ghost{{&sem.waiters, &sem.waiters}, 4711, 1};
    sem.waiters.next = sem.waiters.prev = &ghost.link;
    kesa_sem_enhance_show(&sem);
    EXPECT_EQ(log.count(HURN_INFO, "TBTIRN:sem 0x* cnt 0"), 1u);
    EXPECT_EQ(log.count(HURN_INFO, "TBTIRN:sem 0x* cnt 0 waiterTid 4711 status 1 cur 0x* next 0x* pre 0x*"), 1u)
        << log;
    hurn_loglevel_set(TIRN_MODULE_ID, level);
    tries = 0, first = error, last = then;
    const int result = error == EAGAIN ? then : error;
    EXPECT_EQ(kesa_sem_enhance_up(&sem), result);
    EXPECT_EQ(tries, error == EAGAIN ? 4 : 1);
    EXPECT_TRUE(ghost.state == 0 && ghost.link.next == &ghost.link && sem.count == 0);
    const std::string end = result == 0 ? "sucess." : "fail ret(3).";
    for (const std::string& text : {"Wake up sem(0x*) waiter tid(4711) fail ret(" + std::to_string(error) + ").",
                                    "Retry wake up sem(0x*) waiter tid(4711) " + end}) {
      EXPECT_EQ(log.count(HURN_INFO, "[Infra]" + text), 1u) << log;
      EXPECT_EQ(log.count(HURN_INFO, text), level == HURN_INFO ? 1u : 0u) << "the library's own, by its level";
    }
    EXPECT_TRUE(log.lines()[2].module == 0 && log.lines()[2].function == "kesa_sem_enhance_up") << log;
  }
}

// The entries are woken newest first. At each signal, the state of the entry is cleared already, the entry is still
// linked, and the lock of the queue is held.
TEST(WaitQueue, EachEntryIsEnteredOnceAndAllAreWokenInOrder) {
  static kesa_wait_queue_head queue;
  static kesa_wait_queue_entry entries[3];
  static uint32_t woken;
  kesa_wait_queue_head_init(&queue);
  __wake_up(&queue);
  for (uint32_t i = 0; i < 3; ++i) {
    kesa_wait_queue_entry_init(&entries[i], 100 + i);
    prepare_to_wait(&queue, &entries[i]);
  }
  kesa_wait_queue_entry& oldest = entries[0];
  oldest.state = 0;
  EXPECT_EQ(prepare_to_wait(&queue, &oldest), 0) << "again, in its place";
  EXPECT_EQ(oldest.state, 1u);
  EXPECT_EQ(sched_wait_timeout(&oldest, 3), 0);
  before_wait();
  {
    Imports imports(Object::library);
    imports.redirect("syscall", [](long, long, long tid, long) -> long {
      const kesa_wait_queue_entry& entry = entries[2 - woken];
      EXPECT_EQ(tid, 102 - woken);
      EXPECT_TRUE(entry.state == 0 && entry.link.next != &entry.link && queue.lock.lock == 1);
      ++woken;
      return -1;
    });
    __wake_up(&queue);
  }
  EXPECT_EQ(woken, 3u) << "the signals' results are not looked at";
  EXPECT_TRUE(queue.lock.lock == 0 && queue.list.next == &queue.list);
  EXPECT_GT(sched_wait_timeout(&oldest, 250), 0);
  EXPECT_EQ(sched_wait(&oldest), -1);
  kesa_spinlock_lock(&queue.lock);
  oldest.state = 5;
  finish_wait(&queue, &oldest);  // takes no lock, because the entry was woken
  EXPECT_EQ(oldest.state, 5u);
  kesa_spinlock_unlock(&queue.lock);
  prepare_to_wait(&queue, &oldest);
  finish_wait(&queue, &oldest);
  EXPECT_TRUE(oldest.state == 0 && queue.list.next == &queue.list);
  EXPECT_EQ(autoremove_wake_function(), 0);
}

// The condition is a plain variable: only the memory order of the wake-up makes it visible.
TEST(WaitQueue, WaiterSeesWhatWasDoneBeforeTheWakeUp) {
  kesa_wait_queue_head queue;
  kesa_wait_queue_head_init(&queue);
  int condition = 0;
  std::atomic<bool> is_waiting{false};
  const std::jthread waiter([&] {
    kesa_wait_queue_entry entry;
    kesa_wait_queue_entry_init(&entry, kesa_thread_get_knl_tid());
    prepare_to_wait(&queue, &entry);
    is_waiting = true;
    while (sched_wait_timeout(&entry, 2500) != 0 &&
           std::atomic_ref(entry.state).load(std::memory_order_relaxed) != 0) {
    }
    EXPECT_EQ(condition, 1);
    finish_wait(&queue, &entry);
  });
  EXPECT_TRUE(wait_until([&] { return is_waiting.load(); }));
  condition = 1;
  __wake_up(&queue);
}
