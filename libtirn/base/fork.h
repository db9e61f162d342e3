// What a forked child must renew: of a threaded process only the forking thread goes on in the child, so whatever the
// other threads held there is held by nobody.
#ifndef TIRN_BASE_FORK_H
#define TIRN_BASE_FORK_H

#include <atomic>

namespace tirn {

// The steps of one owner of such state. Owners are static objects; they join by follow() when they first have something
// to renew, and stay.
class ForkSteps {
 public:
  using Step = void (*)(ForkSteps& self);

  // `child` runs in the child. `prepare` runs before the fork, where the state must not change during it, and `parent`
  // ends that in the parent. Steps take no lock that may be held for long, and those of the child allocate nothing.
  explicit constexpr ForkSteps(Step child, Step prepare = nullptr, Step parent = nullptr)
      : child_(child), prepare_(prepare), parent_(parent) {}
  ForkSteps(const ForkSteps&) = delete;
  ForkSteps& operator=(const ForkSteps&) = delete;

  // Before the state is first touched. Costs one load once it has joined.
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

}  // namespace tirn

#endif
