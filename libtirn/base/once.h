// Runs a set-up once: a done flag is tested before and under a mutex.
#ifndef TIRN_BASE_ONCE_H
#define TIRN_BASE_ONCE_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "libtirn/base/cancellation.h"
#include "libtirn/base/fork.h"
#include "libtirn/base/result.h"

namespace tirn {

// A thread that enters the set-up again from inside it (the log's callback may do so) does not wait for itself: it
// goes on as if the set-up were done. In a forked child, a set-up that another thread was running starts again.
class Once : ForkSteps {
 public:
  // What makes a run count as done. kNever is for a step that only has to exclude the set-up.
  enum class Done { kOnSuccess, kAlways, kNever };
  // If the mutex cannot be locked, the process is corrupted anyway: treat the step as done or return the error.
  enum class LockFailure { kCountsAsDone, kIsResult };

  constexpr Once() : ForkSteps(renew) {}

  // Runs `step` and returns its result, or returns kOk if the set-up is done already.
  template <typename Step>
  int run(Step step, Done done = Done::kOnSuccess, LockFailure lock_failure = LockFailure::kCountsAsDone) {
    if (is_done() || is_mine()) {
      return kOk;
    }
    const NoCancellation guard;  // a cancelled thread would leave the mutex locked
    if (const int error = lock(); error != 0) {
      return lock_failure == LockFailure::kIsResult ? error : kOk;
    }
    int result = kOk;
    if (!is_done()) {
      result = step();
      if (done == Done::kAlways || (done == Done::kOnSuccess && result == kOk)) {
        done_.store(1, std::memory_order_release);  // pairs with the acquire in is_done()
      }
    }
    unlock();
    return result;
  }

  // Runs `step` if the set-up is done, and clears the flag. Returns kOk if it is not done, else the error of locking
  // or the result of unlocking.
  template <typename Step>
  int undo(Step step) {
    if (!is_done() || is_mine()) {
      return kOk;
    }
    const NoCancellation guard;
    if (const int error = lock(); error != 0) {
      return error;
    }
    if (is_done()) {
      step();
      done_.store(0, std::memory_order_release);
    }
    return unlock();
  }

  // For a forked child, whose parent's set-up does not serve it: the set-up is to run again.
  void forget() { done_.store(0, std::memory_order_release); }

  bool is_done() const { return done_.load(std::memory_order_acquire) != 0; }

 private:
  static void renew(ForkSteps& self) {
    auto& once = static_cast<Once&>(self);
    if (!once.is_mine()) {
      once.holder_.store(0, std::memory_order_relaxed);
      once.mutex_ = PTHREAD_MUTEX_INITIALIZER;
    }
  }

  // Relaxed: a thread only compares with its own id, which no other thread stores.
  bool is_mine() const { return holder_.load(std::memory_order_relaxed) == pthread_self(); }

  int lock() {
    follow();
    const int error = pthread_mutex_lock(&mutex_);
    if (error == 0) {
      holder_.store(pthread_self(), std::memory_order_relaxed);
    }
    return error;
  }

  int unlock() {
    holder_.store(0, std::memory_order_relaxed);
    return pthread_mutex_unlock(&mutex_);
  }

  std::atomic<uint32_t> done_{0};
  std::atomic<pthread_t> holder_{0};
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

}  // namespace tirn

#endif
