// Waiting for what another thread or process brings about, instead of sleeping for a guessed time.
#ifndef TIRN_TEST_WAIT_UNTIL_H
#define TIRN_TEST_WAIT_UNTIL_H

#include <chrono>
#include <thread>

namespace tirn::test {

// What must come is waited for as long as the test may last: a loaded machine is no fault.
inline constexpr std::chrono::seconds kPatience{TIRN_TEST_SECONDS - 10};

// The condition's last answer: false only when the limit has passed.
template <typename Condition>
bool wait_until(Condition condition, std::chrono::milliseconds limit = kPatience) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return condition();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace tirn::test

#endif
