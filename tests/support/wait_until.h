// Waiting for what another thread or process brings about, instead of sleeping for a guessed time.
#ifndef TIRN_TEST_WAIT_UNTIL_H
#define TIRN_TEST_WAIT_UNTIL_H

#include <chrono>
#include <thread>

namespace tirn::test {

// The condition's last answer: false only when the limit has passed.
template <typename Condition>
bool wait_until(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
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
