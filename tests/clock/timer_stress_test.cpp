#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <random>

#include "support/log_capture.h"
#include "support/wait_until.h"
#include "sync/together.h"
#include "tirn/timer.h"

using namespace tirn::test;

namespace {

constexpr size_t kTimers = 32;
constexpr unsigned kThreads = 4;

struct Shared {
  kesa_timer timer{};
  std::atomic<uint64_t> fired{0};
  bool is_fine = false;
};

Shared g_shared[kTimers];

void fire(uint64_t at) {
  Shared& one = g_shared[at];
  if (++one.fired % 3 == 0) {
    kesa_timer_modify(&one.timer, one.is_fine ? 20'000 : 1);
  }
}

}  // namespace

// All threads change, delete and wait for the same timers, of both kinds, while these fire and add themselves. The
// lists stay whole, and in the end nothing fires any more.
TEST(TimerStress, ThreadsChangeTheTimersThatFire) {
  const auto seed = static_cast<unsigned>(testing::UnitTest::GetInstance()->random_seed());
  SCOPED_TRACE(seed);
  LogCapture log;
  ASSERT_EQ(kesa_timer_module_init(), 0);
  for (size_t i = 0; i < kTimers; ++i) {
    Shared& one = g_shared[i];
    one.is_fine = i % 2 != 0;
    kesa_timer_set(&one.timer, one.is_fine ? 50'000 : 2, i, fire);
    ASSERT_EQ(one.is_fine ? kesa_timer_add_ns(&one.timer) : kesa_timer_add(&one.timer), 0);
  }
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  together(kThreads, [&](unsigned thread) {
    std::mt19937 random(seed + thread);
    while (std::chrono::steady_clock::now() < end) {
      Shared& one = g_shared[random() % kTimers];
      switch (random() % 4) {
        case 0:
          kesa_timer_delete(&one.timer);
          break;
        case 1:
          kesa_timer_delete_sync(&one.timer);
          break;
        default:
          kesa_timer_modify(&one.timer, one.is_fine ? 1 + random() % 100'000 : 1 + random() % 30);
      }
    }
  });
  uint64_t fired = 0;
  for (Shared& one : g_shared) {
    EXPECT_EQ(kesa_timer_destroy(&one.timer), 0);
    fired += one.fired;
  }
  EXPECT_GT(fired, kTimers);
  EXPECT_EQ(kesa_get_timer_root()->pendingCount, 0u);
  EXPECT_EQ(log.count("*bnormal list*") + log.count("List node prev*"), 0u) << log;
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  uint64_t later = 0;
  for (const Shared& one : g_shared) {
    later += one.fired;
  }
  EXPECT_EQ(later, fired);
}
