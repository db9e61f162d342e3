// Measures the semaphore alone, and between two threads that wake each other in turns.
#include <linux/futex.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <optional>
#include <string>
#include <thread>

#include "support/bench.h"
#include "support/machine.h"
#include "tirn/jiffies.h"
#include "tirn/sched.h"
#include "tirn/semaphore.h"
#include "tirn/thread.h"

namespace tirn::bench {
namespace {

struct EnhancedSem {
  EnhancedSem() { kesa_sem_enhance_init(&sem, 0); }
  void down() { kesa_sem_enhance_down(&sem); }
  void up(pid_t) { kesa_sem_enhance_up(&sem); }
  kesa_sem_enhance sem;
};

struct PosixSem {
  PosixSem() { sem_init(&sem, 0, 0); }
  void down() {
    while (sem_wait(&sem) != 0) {
    }
  }
  void up(pid_t) { sem_post(&sem); }
  sem_t sem;
};

enum class Wake { kFutex, kFutexAndSignal, kSignal };

// A semaphore of at most one unit and one waiter: the cost of a sleep in the kernel, and of a signal besides.
template <Wake kWake>
struct BareFutex {
  void down() {
    uint32_t unit = kUnit;
    if (word.compare_exchange_strong(unit, kNone)) {
      return;
    }
    while (word.exchange(kAwaited) != kUnit) {
      syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, kAwaited, nullptr, nullptr, 0);
    }
    word.store(kNone);
  }
  void up(pid_t waiter) {
    if (word.exchange(kUnit) != kAwaited) {
      return;
    }
    if (kWake != Wake::kSignal) {
      syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }
    if (kWake != Wake::kFutex) {
      syscall(SYS_tgkill, getpid(), waiter, SIGRTMIN);
    }
  }
  static constexpr uint32_t kNone = 0;
  static constexpr uint32_t kUnit = 1;
  static constexpr uint32_t kAwaited = 2;
  std::atomic<uint32_t> word{kNone};
};

std::optional<AwakeCores> awake;

std::string set_up() {
  kesa_gettime_init();
  kesa_thrd_setcurthreadinfo();
  struct sigaction action {};
  action.sa_handler = [](int) {};
  action.sa_flags = SA_RESTART;
  sigaction(SIGRTMIN, &action, nullptr);
  return kesa_sched_init() == 0 ? "" : "the wake-up signal cannot be had";
}

std::string set_up_awake() {
  awake.emplace();
  return set_up();
}

void clear() { awake.reset(); }

// Wakes the other thread and is woken by it: this thread runs on the first core, the other on `core`, and each sleeps
// while the other runs. On one core each wake-up takes the core from this thread, which counts as a preemption and
// hides those by other processes, so no repetition counts as disturbed there.
template <class Ball>
Measure ping_pong(size_t core) {
  return [core](uint64_t count) {
    const Placement before = core == 0 ? Placement::none : placement_now();
    Ball there;
    Ball back;
    const pid_t self = gettid();
    std::atomic<pid_t> other{0};
    pin_to(cores()[0]);
    std::thread answer([&] {
      pin_to(cores()[core]);
      kesa_thrd_setcurthreadinfo();
      other = gettid();
      for (uint64_t i = 0; i < count; ++i) {
        there.down();
        back.up(self);
      }
      kesa_thrd_clearcurthreadinfo();
    });
    while (other == 0) {
      sched_yield();
    }
    const pid_t answering = other;
    Sample sample = timed([&] {
      repeat(count, [&] {
        there.up(answering);
        back.down();
      });
    });
    answer.join();
    if (core == 0) {
      sample.disturbed = false;
      return sample;
    }
    sample.placement = placement_now();
    sample.disturbed |= sample.placement != before;
    return sample;
  };
}

Group ping_pong_group(const char* name, size_t core) {
  return {.name = name,
          .target = 1.05,
          .unit = kMicroseconds,
          .cores = core == 0 ? 1u : 2u,
          .set_up = core == 0 ? set_up : set_up_awake,
          .tear_down = clear,
          .ours = {"kesa_sem_enhance", ping_pong<EnhancedSem>(core)},
          .peers = {{"futex, and a signal sent", ping_pong<BareFutex<Wake::kFutexAndSignal>>(core)}},
          .shown = {{"signal that ends a futex's wait", ping_pong<BareFutex<Wake::kSignal>>(core)},
                    {"futex", ping_pong<BareFutex<Wake::kFutex>>(core)},
                    {"sem_t", ping_pong<PosixSem>(core)}}};
}

// Takes a unit and gives it back while no other thread waits.
template <class Sem>
Measure alone() {
  static Sem sem;
  static const int filled = (sem.up(0), 0);
  static_cast<void>(filled);
  return one_thread([] {
    sem.down();
    sem.up(0);
  });
}

const Family semaphores{[] {
  return std::vector<Group>{{.name = "semaphore/alone",
                             .target = 1.6,
                             .set_up = set_up,
                             .ours = {"kesa_sem_enhance, down and up", alone<EnhancedSem>()},
                             .peers = {{"sem_t, wait and post", alone<PosixSem>()}}},
                            ping_pong_group("semaphore/ping_pong_same_core", 0),
                            ping_pong_group("semaphore/ping_pong_two_cores", 1)};
}};

}  // namespace
}  // namespace tirn::bench
