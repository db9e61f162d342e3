#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>

#include "support/wait_until.h"
#include "sync/together.h"
#include "sync/waiters.h"
#include "tirn/jiffies.h"
#include "tirn/sched.h"
#include "tirn/thread.h"
#include "tirn/wait.h"

using namespace tirn::test;

namespace {

constexpr size_t kThreads = 4;

// Not an atomic: the thread sanitizer delivers queued signals at each atomic operation. If that happens in a handler,
// it loses the thread's signal mask.
volatile sig_atomic_t g_has_rained = 0;
__attribute__((no_sanitize("thread"))) void drop(int) { g_has_rained = 1; }

}  // namespace

// Each round hands a unit to a waiter and gets one back as the answer. The thread that has waited longest must be the
// one that answers. Meanwhile another thread sends signals to all of them, among them wake-up signals.
TEST(SemaphoreStress, HandOversInOrderUnderARainOfSignals) {
  struct sigaction action {};
  action.sa_handler = drop;
  sigaction(SIGUSR1, &action, nullptr);
  kesa_sched_init();  // without its handler the wake-up signal ends the process
  kesa_gettime_init();
  constexpr int kRounds = 50000;
  kesa_sem_enhance work, answer;
  kesa_sem_enhance_init(&work, 0);
  kesa_sem_enhance_init(&answer, 0);
  constexpr unsigned kGiver = kThreads, kRain = kThreads + 1;
  std::atomic<int> tids[kRain] = {}, served{0};
  std::atomic<bool> is_over{false};
  int out_of_order = 0;
  int rounds = 0;  // fewer than kRounds only under a sanitizer on a busy machine
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  const auto rain = [&] {
    for (unsigned i = 0; !is_over; ++i) {
      if (const int tid = tids[i % kRain]; tid != 0) {
        syscall(SYS_tgkill, getpid(), tid, i / kRain % 2 == 0 ? SIGUSR1 : SIGWAKEUP);
      }
      kesa_usleep(50);
    }
  };
  const auto serve = [&] {
    while (kesa_sem_enhance_down(&work), !is_over) {
      served = gettid();
      kesa_sem_enhance_up(&answer);
    }
  };
  const auto give = [&] {
    for (; rounds < kRounds && std::chrono::steady_clock::now() < end; ++rounds) {
      uint32_t oldest = oldest_waiter_of(work);
      for (; oldest == 0; oldest = oldest_waiter_of(work)) {
        kesa_yield();  // the waiters need the lock that oldest_waiter_of takes
      }
      EXPECT_EQ(kesa_sem_enhance_up(&work), 0);
      kesa_sem_enhance_down(&answer);
      out_of_order += served != static_cast<int>(oldest);
    }
    is_over = true;
    for (size_t i = 0; i < kThreads; ++i) {
      kesa_sem_enhance_up(&work);
    }
  };
  together(1 + kRain, [&](unsigned thread) {
    if (thread == kRain) {
      return rain();
    }
    tids[thread] = gettid();
    thread == kGiver ? give() : serve();
    tids[thread] = 0;
  });
  EXPECT_EQ(out_of_order, 0);
  EXPECT_TRUE(rounds > 1000 && g_has_rained == 1) << rounds;
  EXPECT_TRUE(work.count == 0 && answer.count == 0) << work.count << ' ' << answer.count;
}

// No waiter sleeps through a wake-up if the condition was set before it.
TEST(SemaphoreStress, WaitQueueLosesNoWakeUp) {
  kesa_gettime_init();
  constexpr uint32_t kRounds = 3000;
  kesa_wait_queue_head queue;
  kesa_wait_queue_head_init(&queue);
  std::atomic<uint32_t> round{0}, answers{0};
  together(1 + kThreads, [&](unsigned thread) {
    for (uint32_t next = 1; next <= kRounds; ++next) {
      if (thread == kThreads) {
        round = next;
        __wake_up(&queue);
        if (!wait_until([&] { return answers == next * kThreads; })) {
          ADD_FAILURE() << "a wake-up was lost in round " << next;
          _exit(1);  // the sleeping thread would not end
        }
        continue;
      }
      kesa_wait_queue_entry entry;
      kesa_wait_queue_entry_init(&entry, kesa_thread_get_knl_tid());
      while (prepare_to_wait(&queue, &entry), round < next) {
        sched_wait_timeout(&entry, 25000);  // far longer than wait_until waits
      }
      finish_wait(&queue, &entry);
      ++answers;
    }
  });
}
