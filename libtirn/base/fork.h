// Renews the library's state in a forked child. Only the forking thread goes on in the child, so what the other
// threads held is never released there.
#ifndef TIRN_BASE_FORK_H
#define TIRN_BASE_FORK_H

#include <atomic>

#include "libtirn/base/cancellation.h"
#include "tirn/sched.h"

namespace tirn {

// The steps of one owner of such state. Owners are static objects. They join through follow() when they first have
// something to renew, and never leave.
class ForkSteps {
 public:
  using Step = void (*)(ForkSteps& self);

  // `child` runs in the child. `prepare` runs before the fork, for state that must not change during it; `parent`
  // then releases that state in the parent. Steps take no lock that may be held for long, and `child` allocates
  // nothing.
  explicit constexpr ForkSteps(Step child, Step prepare = nullptr, Step parent = nullptr)
      : child_(child), prepare_(prepare), parent_(parent) {}
  ForkSteps(const ForkSteps&) = delete;
  ForkSteps& operator=(const ForkSteps&) = delete;

  // Joins the process's fork handler. To be called before the state is first touched; costs one load once joined.
  void follow() {
    if (!is_followed_.load(std::memory_order_acquire)) [[unlikely]] {
      join();
    }
  }

 private:
  friend struct ForkStepsOfAll;
  void join();

  const Step child_;
  const Step prepare_;
  const Step parent_;
  ForkSteps* next_ = nullptr;
  std::atomic<bool> is_followed_{false};
};

// Makes attempts to take a lock before a fork, for some tenths of a second, and returns whether it was taken. The
// wait has an end because the forking thread may hold the lock itself, in a function that the lock's owner calls.
template <typename TryLock>
bool take_before_fork(TryLock try_lock) {
  const NoCancellation guard;
  for (int i = 0; i < 4000; ++i) {
    if (try_lock()) {
      return true;
    }
    kesa_usleep(50);
  }
  return false;
}

}  // namespace tirn

#endif
