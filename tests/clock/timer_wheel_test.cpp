// The wheel without its thread, on a clock that the test moves. The test is built with the timers' own sources, and
// gives them the clock and, in place of the thread, the function that the thread would run.
#include "libtirn/timer/timer_wheel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <random>
#include <vector>

#include "libtirn/base/spinlock.h"
#include "support/log_capture.h"
#include "tirn/jiffies.h"
#include "tirn/thread.h"

using namespace tirn::test;
using namespace tirn::timer;

namespace {

uint64_t g_now = 1'000'000'000'000;  // the test's clock, in milliseconds
kesa_timer_root& g_root = *kesa_get_timer_root();
std::function<void(size_t)> g_on_fire;

void fire(uint64_t data) { g_on_fire(data); }

struct Level {
  kesa_list_head* slots;
  uint64_t unit, count;
};
const Level kLevels[] = {{g_root.tv1, 1, 1000},
                         {g_root.tv2, 1000, 60},
                         {g_root.tv3, 60'000, 60},
                         {g_root.tv4, 3'600'000, 60},
                         {g_root.tv5, 216'000'000, 24}};

// Returns the next millisecond at which the wheel has something to do.
uint64_t next_work() {
  uint64_t first = UINT64_MAX;
  for (const Level& level : kLevels) {
    const uint64_t begin = (g_root.wheelTime + level.unit - 1) / level.unit;
    for (uint64_t i = begin; i < begin + level.count; ++i) {
      if (!tirn::list::is_empty(&level.slots[i % level.count])) {
        first = std::min(first, i * level.unit);
        break;
      }
    }
  }
  return first;
}

// Lets the wheel work up to `end`. Milliseconds in which it has nothing to do are left out, as it takes no notice of
// them.
void run_until(uint64_t end) {
  for (uint64_t next = next_work(); g_root.pendingCount != 0 && next <= end; next = next_work()) {
    g_root.wheelTime = g_now = std::max(next, g_root.wheelTime);
    tirn::lock_spinlock(g_root.lock);
    run_tick(g_root);
    tirn::unlock_spinlock(g_root.lock);
  }
  g_now = end;
  g_root.wheelTime = std::max(g_root.wheelTime, end + 1);
}

class Wheel : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(kesa_timer_module_init(), 0);
    g_on_fire = [this](size_t) { fired_at.push_back(g_now); };
  }

  kesa_timer& make(uint64_t timeout, size_t data = 0) {
    kesa_timer& timer = timers.emplace_back();
    kesa_timer_set(&timer, timeout, data, fire);
    return timer;
  }
  kesa_timer& add(uint64_t timeout, size_t data = 0) {
    kesa_timer& timer = make(timeout, data);
    EXPECT_EQ(kesa_timer_add(&timer), 0);
    return timer;
  }

  std::deque<kesa_timer> timers;
  std::vector<uint64_t> fired_at;
};

}  // namespace

uint64_t kesa_time_getmillisec() { return g_now; }
int create_thread_nopreempt_raw(kesa_thread_fn, void*, pthread_t* id) { return *id = 0, 0; }

// Whatever the time of day, a timer is in the slot of its range, and fires at its millisecond.
TEST_F(Wheel, EachBoundary) {
  const struct {
    uint64_t timeout;
    size_t level;
  } kRows[] = {{1, 0},
               {999, 0},
               {1000, 1},
               {59'999, 1},
               {60'000, 2},
               {3'599'999, 2},
               {3'600'000, 3},
               {215'999'999, 3},
               {216'000'000, 4},
               {5'183'999'999, 4},
               {5'184'000'000, 4},
               {5'184'000'001, 4},
               {8'640'000'000, 4},
               {100'000'000'000, 4}};
  const uint64_t day = g_now;
  for (const uint64_t start : {day, day + 1, day + 999, day + 59'999, day + 3'599'999, day + 215'999'999}) {
    for (const auto& row : kRows) {
      g_now = std::max(g_now, start) / 216'000'000 * 216'000'000 + start % 216'000'000 + 216'000'000;
      const kesa_timer& timer = add(row.timeout);
      const Level& level = kLevels[row.level];
      const auto offset = static_cast<size_t>(timer.link.prev - level.slots);
      EXPECT_LT(offset, level.count) << row.timeout;
      run_until(timer.expires - 1);
      EXPECT_TRUE(fired_at.empty()) << row.timeout << " from " << start;
      run_until(timer.expires);
      EXPECT_EQ(fired_at, std::vector{timer.expires}) << row.timeout << " from " << start;
      fired_at.clear();
    }
  }
}

// Random adds, changes and deletes over the whole reach and beyond. Each timer fires once, at its millisecond.
TEST_F(Wheel, RandomTimersAgainstTheirExpiry) {
  const auto seed = static_cast<unsigned>(testing::UnitTest::GetInstance()->random_seed());
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  constexpr size_t kTimers = 20000;
  constexpr uint64_t kRanges[] = {3, 1000, 60'000, 3'600'000, 216'000'000, 5'184'000'000, 9'000'000'000};
  const auto delay = [&] { return 1 + random() % kRanges[random() % std::size(kRanges)]; };
  std::vector<uint64_t> due(kTimers);  // 0: not pending
  size_t pending = 0, fired = 0;
  g_on_fire = [&](size_t at) {
    EXPECT_EQ(due[at], g_now) << at;
    due[at] = 0;
    --pending;
    ++fired;
    if (random() % 4 == 0) {  // again, from its own callback
      EXPECT_EQ(kesa_timer_modify(&timers[at], due[at] = delay()), 0);
      due[at] += g_now;
      ++pending;
    }
  };
  for (size_t i = 0; i < kTimers; ++i) {
    due[i] = add(delay(), i).expires;
    ++pending;
  }
  for (int round = 0; round < 30000 && !HasFailure(); ++round) {
    const size_t at = random() % kTimers;
    const bool was_pending = due[at] != 0;
    EXPECT_EQ(kesa_timer_is_pending(&timers[at]), was_pending ? 1 : 0);
    if (random() % 3 == 0) {
      EXPECT_EQ(kesa_timer_delete(&timers[at]), 0);
      pending -= was_pending ? 1 : 0;
      due[at] = 0;
    } else {
      EXPECT_EQ(kesa_timer_modify(&timers[at], delay()), 0);
      pending += was_pending ? 0 : 1;
      due[at] = timers[at].expires;
    }
    if (round % 100 == 0) {
      run_until(g_now + random() % kRanges[random() % std::size(kRanges)]);
    }
    EXPECT_EQ(g_root.pendingCount, pending);
  }
  while (pending != 0 && !HasFailure()) {
    run_until(*std::max_element(due.begin(), due.end()));
  }
  EXPECT_GT(fired, kTimers / 2);
}

// A late wheel goes through each millisecond, so that timers fire in the order of their expiry, and those that a
// callback adds for the past in the next one.
TEST_F(Wheel, CatchesUpInOrder) {
  std::vector<size_t> order;
  g_on_fire = [&](size_t at) {
    order.push_back(at);
    if (at == 2500) {
      add(1, 5001);  // due long after the stall
    }
  };
  for (size_t i = 5000; i > 0; --i) {
    add(i, i);
  }
  const uint64_t start = g_now;
  g_now += 5000;
  tirn::lock_spinlock(g_root.lock);
  while (g_root.wheelTime <= g_now) {
    run_tick(g_root);
  }
  tirn::unlock_spinlock(g_root.lock);
  EXPECT_EQ(order.size(), 5000u);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  run_until(start + 5001);
  EXPECT_EQ(order.back(), 5001u);
}

// The thread sleeps until the first slot that is not empty, within 19 ms and not past the end of the level.
TEST_F(Wheel, NextWake) {
  const struct {
    uint64_t second;  // the millisecond of the second at which the wheel stands
    uint64_t timer;   // of the only timer, from then; 0: far away
    uint64_t wake;    // from then
  } kRows[] = {{1, 0, 19},   {1, 7, 7},   {1, 19, 19}, {1, 20, 19}, {980, 0, 19},
               {981, 0, 18}, {990, 5, 5}, {999, 0, 0}, {0, 5, 0}};
  for (const auto& row : kRows) {
    g_now = (g_now / 1000 + 1) * 1000 + row.second;
    start_over(g_root);
    kesa_timer& timer = add(row.timer != 0 ? row.timer : 100'000);
    EXPECT_EQ(next_wake(g_root) - g_now, row.wake) << row.second << " " << row.timer;
    kesa_timer_delete(&timer);
    EXPECT_EQ(g_root.nextWake, g_now + 20);  // an idle wheel
  }
}

TEST_F(Wheel, ModifyThatChangesNothingTakesNoLock) {
  kesa_timer& timer = add(500);
  tirn::lock_spinlock(g_root.lock);
  EXPECT_EQ(kesa_timer_modify(&timer, 500), 0);
  tirn::unlock_spinlock(g_root.lock);
  g_now += 100;
  EXPECT_EQ(kesa_timer_modify(&timer, UINT64_MAX / 1000 + 401), 0);  // the product wraps: 400 ms
  EXPECT_EQ(timer.expires, g_now + 400);
  EXPECT_EQ(timer.timeout, UINT64_MAX / 1000 + 401);
  EXPECT_EQ(kesa_timer_modify(&timer, 0), -1);
  EXPECT_EQ(kesa_timer_is_pending(&timer), 1);
}

TEST_F(Wheel, SlowCallbacksAreLogged) {
  LogCapture log;
  for (const uint64_t cost : {300u, 301u, 5000u, 301u, 301u, 301u}) {
    g_on_fire = [&](size_t) { g_now += cost; };
    run_until(add(1).expires);
  }
  EXPECT_EQ(log.count(HURN_WARNING, "Timer 0x* func 0x* added by make cost 301 ms."), 2u) << log;  // three in a row
  EXPECT_EQ(log.count(HURN_WARNING, "[Infra]Timer 0x* func 0x* added by * cost * ms."), 5u) << log;
}

// A list whose nodes were overwritten is logged and walked as far as it leads somewhere. A timer that could not be
// taken off fires.
TEST_F(Wheel, BrokenListsAreLoggedAndWalked) {
  const struct {
    void (*damage)(kesa_timer& first, kesa_timer& second);
    const char* line;
    size_t fired;
  } kRows[] = {
      {[](kesa_timer& first, kesa_timer&) { first.link.prev = nullptr; },
       "Abnormal list node next:0x*(0x*,(nil)) is not point to cur:0x*(0x*,0x*)", 2},
      {[](kesa_timer&, kesa_timer& second) {
         second.link.prev = KESA_LIST_POISON_PREV;
         kesa_timer_delete(&second);
       },
       "List node prev:(0x200200), cur:(0x*)", 2},
      {[](kesa_timer&, kesa_timer& second) { second.link.prev = &second.link; },
       "Abnormal list node next:0x*(0x*,0x*) is not point to cur:0x*(0x*,0x*)", 2},
      {[](kesa_timer& first, kesa_timer&) { first.link.next = nullptr; },
       "Abnormal list node next:(nil)((nil),(nil)) is not point to cur:0x*((nil),0x*)", 1},
      {[](kesa_timer& first, kesa_timer&) { first.link.next = &first.link; },
       "Abnormal list node next:0x*(0x*,0x*) is not point to cur:0x*(0x*,0x*)", 1},
  };
  for (const auto& row : kRows) {
    LogCapture log;
    fired_at.clear();
    kesa_timer& first = add(50);
    kesa_timer& second = add(50);
    row.damage(first, second);
    run_until(g_now + 50);
    EXPECT_GE(log.count(row.line), 1u) << log;
    EXPECT_EQ(fired_at.size(), row.fired) << row.line;
    EXPECT_EQ(kesa_timer_delete(&add(50)), 0);  // the slot can still be used
    empty_slots(g_root);
    first = second = {};
  }
}
