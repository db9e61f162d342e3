// Set-up that runs once: a done flag that is tested before and under a mutex.
#ifndef TIRN_BASE_ONCE_H
#define TIRN_BASE_ONCE_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "libtirn/base/guard.h"
#include "libtirn/base/result.h"

namespace tirn {

class Once {
 public:
  // What makes a run count as done. kNever: a step that only has to keep clear of the set-up.
  enum class Done { kOnSuccess, kAlways, kNever };
  // A mutex that cannot be locked: the process is corrupted anyway, so this counts as done, or is told.
  enum class LockFailure { kCountsAsDone, kIsResult };

  // Runs `step` unless it is done, and gives its result; kOk where it is done already.
  template <typename Step>
  int run(Step step, Done done = Done::kOnSuccess, LockFailure lock_failure = LockFailure::kCountsAsDone) {
    if (is_done()) {
      return kOk;
    }
    if (const int error = pthread_mutex_lock(&mutex_); error != 0) {
      return lock_failure == LockFailure::kIsResult ? error : kOk;
    }
    int result = kOk;
    if (!is_done()) {
      const NoCancellation guard;  // the mutex would stay locked
      result = step();
      if (done == Done::kAlways || (done == Done::kOnSuccess && result == kOk)) {
        done_.store(1, std::memory_order_release);  // with is_done(): whoever sees the flag sees the set-up
      }
    }
    pthread_mutex_unlock(&mutex_);
    return result;
  }

  // Runs `step` if the set-up is done, and clears the flag. kOk where it is not done; else the result of unlocking,
  // or the error of locking.
  template <typename Step>
  int undo(Step step) {
    if (!is_done()) {
      return kOk;
    }
    if (const int error = pthread_mutex_lock(&mutex_); error != 0) {
      return error;
    }
    if (is_done()) {
      const NoCancellation guard;
      step();
      done_.store(0, std::memory_order_release);
    }
    return pthread_mutex_unlock(&mutex_);
  }

  bool is_done() const { return done_.load(std::memory_order_acquire) != 0; }

 private:
  std::atomic<uint32_t> done_{0};
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

}  // namespace tirn

#endif
