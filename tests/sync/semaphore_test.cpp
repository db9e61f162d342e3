#include "tirn/semaphore.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <thread>
#include <vector>

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
    EXPECT_EQ(kesa_sem_enhance_down_timeout(&sem, timeout), -61) << timeout;
  }
  EXPECT_EQ(waiters_of(sem), 0u);
  EXPECT_EQ(kesa_sem_enhance_up(&sem), 0);
  EXPECT_EQ(sem.count, 1);
  EXPECT_EQ(kesa_sem_enhance_down_timeout(&sem, 0), 0);
  EXPECT_EQ(sem.count, 0);
  EXPECT_EQ(kesa_sem_enhance_destroy(&sem), 0);
}

TEST(Semaphore, ServesInTheOrderOfArrival) {
  LogCapture log;
  kesa_sem_enhance sem, served;
  kesa_sem_enhance_init(&sem, 0);
  kesa_sem_enhance_init(&served, 0);
  std::atomic<size_t> last{0};
  std::vector<std::thread> threads;
  constexpr size_t kThreads = 8;
  for (size_t i = 1; i <= kThreads; ++i) {
    threads.emplace_back([&, i] {
      kesa_sem_enhance_down(&sem);
      last = i;
      kesa_sem_enhance_up(&served);
    });
    ASSERT_TRUE(wait_until([&] { return waiters_of(sem) == i; }));
  }
  kesa_sem_enhance_show(&sem);
  EXPECT_EQ(log.count(6, "TBTIRN:sem 0x* cnt 0"), 1u);
  EXPECT_EQ(log.count(6, "TBTIRN:sem 0x* cnt 0 waiterTid * status 1 cur 0x* next 0x* pre 0x*"), kThreads) << log;
  for (size_t i = 1; i <= kThreads; ++i) {
    EXPECT_EQ(kesa_sem_enhance_up(&sem), 0);
    kesa_sem_enhance_down(&served);
    EXPECT_EQ(last, i);
    EXPECT_EQ(sem.count, 0);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST(Semaphore, SignalsEndOnlyTheInterruptibleForms) {
  kesa_sem_enhance sem;
  kesa_sem_enhance_init(&sem, 0);
  std::atomic<uint32_t> tid{0};
  std::atomic<bool> is_over{false};
  std::thread waiter([&] {
    tid = static_cast<uint32_t>(gettid());
    EXPECT_EQ(kesa_sem_enhance_down_interruptible(&sem), -4);
    EXPECT_EQ(kesa_sem_enhance_down_timeout(&sem, 60000), -4);
    kesa_sem_enhance_down(&sem);
    is_over = true;
  });
  ASSERT_TRUE(wait_until([&] { return tid != 0 && waiters_of(sem) == 1; }));
  for (int i = 0; i < 200; ++i) {  // ends the first two waits, and not the third
    EXPECT_EQ(kesa_wake_up_process(tid), 0);
    kesa_usleep(500);
  }
  EXPECT_TRUE(wait_until([&] { return waiters_of(sem) == 1; }));
  EXPECT_FALSE(is_over);
  EXPECT_EQ(kesa_sem_enhance_up(&sem), 0);
  waiter.join();
  EXPECT_EQ(sem.count, 0);
}

TEST(Semaphore, WaiterThatHasDiedIsReported) {
  LogCapture log;
  kesa_sem_enhance sem;
  kesa_sem_enhance_init(&sem, 0);
  GhostWaiter ghost{{&sem.waiters, &sem.waiters}, static_cast<uint32_t>(getppid()), 1};
  sem.waiters.next = sem.waiters.prev = &ghost.link;
  hurn_loglevel_set(381, HURN_ERROR);
  EXPECT_EQ(kesa_sem_enhance_up(&sem), ESRCH);
  EXPECT_EQ(ghost.state, 0u);
  EXPECT_EQ(ghost.link.next, &ghost.link);
  EXPECT_EQ(sem.count, 0) << "the unit is not given back";
  EXPECT_EQ(log.count("[Infra]Wake up sem(0x*) waiter tid(*) fail ret(3)."), 1u) << log;
  EXPECT_EQ(log.count("[Infra]Retry wake up sem(0x*) waiter tid(*) fail ret(3)."), 1u);
  EXPECT_EQ(log.lines().size(), 2u) << "the library's own lines are below its level";
}

TEST(Semaphore, FullQueueOfSignalsDelaysWakeUpsOnly) {
  LogCapture log;
  kesa_sem_enhance sem;
  kesa_sem_enhance_init(&sem, 0);
  constexpr size_t kThreads = 4;
  std::vector<std::thread> threads;
  for (size_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] { kesa_sem_enhance_down(&sem); });
  }
  ASSERT_TRUE(wait_until([&] { return waiters_of(sem) == kThreads; }));
  rlimit former, none;
  ASSERT_EQ(getrlimit(RLIMIT_SIGPENDING, &former), 0);
  none = {0, former.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_SIGPENDING, &none), 0);
  for (size_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] { EXPECT_EQ(kesa_sem_enhance_up(&sem), 0); });
  }
  ASSERT_TRUE(
      wait_until([&] { return log.count("[Infra]Wake up sem(0x*) waiter tid(*) fail ret(11).") == kThreads; }));
  ASSERT_EQ(setrlimit(RLIMIT_SIGPENDING, &former), 0);
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(log.count("[Infra]Retry wake up sem(0x*) waiter tid(*) sucess."), kThreads) << log;
  EXPECT_EQ(log.count(6, "Retry wake up sem(0x*) waiter tid(*) sucess."), kThreads);
}

TEST(WaitQueue, EachEntryIsEnteredOnceAndAllAreWoken) {
  kesa_wait_queue_head queue;
  kesa_wait_queue_head_init(&queue);
  __wake_up(&queue);
  kesa_wait_queue_entry first, second;
  kesa_wait_queue_entry_init(&first, kesa_thread_get_knl_tid());
  kesa_wait_queue_entry_init(&second, kesa_thread_get_knl_tid());
  prepare_to_wait(&queue, &first);
  prepare_to_wait(&queue, &second);
  EXPECT_EQ(queue.list.next, &second.link) << "the newest is at the front";
  first.state = 0;
  EXPECT_EQ(prepare_to_wait(&queue, &first), 0);
  EXPECT_EQ(first.state, 1u);
  EXPECT_EQ(queue.list.prev, &first.link) << "it keeps its place";
  EXPECT_EQ(sched_wait_timeout(&first, 3), 0);
  before_wait();
  __wake_up(&queue);
  EXPECT_EQ(queue.list.next, &queue.list);
  EXPECT_GT(sched_wait_timeout(&first, 250), 0);
  EXPECT_EQ(sched_wait(&second), -1);
  kesa_spinlock_lock(&queue.lock);
  first.state = 5;
  finish_wait(&queue, &first);  // takes no lock, as the entry was woken
  EXPECT_EQ(first.state, 5u);
  kesa_spinlock_unlock(&queue.lock);
  prepare_to_wait(&queue, &first);
  finish_wait(&queue, &first);
  EXPECT_EQ(first.state, 0u);
  EXPECT_EQ(queue.list.next, &queue.list);
  EXPECT_EQ(autoremove_wake_function(), 0);
}
