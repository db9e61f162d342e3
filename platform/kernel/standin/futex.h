// Futexes within one process, for which the C library has no calls, and a lock that is made of them.
#ifndef ZUT_FUTEX_H
#define ZUT_FUTEX_H

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdint>

#include "fork.h"

namespace zut {

inline constexpr int64_t kSecond = 1'000'000'000;
inline constexpr int64_t kJiffy = 4'000'000;

inline int64_t monotonic_now() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kSecond + now.tv_nsec;
}

inline timespec to_timespec(int64_t nanoseconds) { return {nanoseconds / kSecond, nanoseconds % kSecond}; }

// Sleeps while `*word` is `expected`, until `deadline` (monotonic nanoseconds). Returns 0, or -1 with errno. There is
// always a deadline, because a wait with one ends at any signal; the kernel restarts a wait without one after a
// handler with SA_RESTART.
inline long futex_wait(const void* word, uint32_t expected, int64_t deadline) {
  const timespec until = to_timespec(deadline);
  return syscall(SYS_futex, word, FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG, expected, &until, nullptr,
                 FUTEX_BITSET_MATCH_ANY);
}

inline void futex_wake(const void* word) {
  syscall(SYS_futex, word, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, INT_MAX, nullptr, nullptr, 0);
}

// A lock that stores the process of its holder. If another thread held it at a fork, the child sees that nobody will
// release its copy of the lock, and takes it over.
class ProcessLock {
 public:
  bool try_lock() {
    const uint32_t mine = this_process();
    uint32_t holder = holder_.load(std::memory_order_relaxed);
    return holder != mine && holder_.compare_exchange_strong(holder, mine, std::memory_order_acquire);
  }
  void lock() {
    follow_forks();
    while (!try_lock()) {
      futex_wait(&holder_, this_process(), monotonic_now() + kSecond);
    }
  }
  void unlock() {
    // Release: publishes what the lock guards. Pairs with the exchange in try_lock.
    holder_.store(0, std::memory_order_release);
    futex_wake(&holder_);
  }

 private:
  std::atomic<uint32_t> holder_{0};
};

}  // namespace zut

#endif
