// Waits for something that another thread or process does, instead of sleeping for a guessed time.
#ifndef TIRN_TEST_WAIT_UNTIL_H
#define TIRN_TEST_WAIT_UNTIL_H

#include <chrono>
#include <thread>

namespace tirn::test {

// Almost as long as a test may last: a slow machine alone must not make a test fail.
inline constexpr std::chrono::seconds kPatience{TIRN_TEST_SECONDS - 10};

// Waits for the condition. Returns its last value, which is false only if the limit has passed.
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
