#include "tirn/timer.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/imports.h"
#include "support/log_capture.h"
#include "support/wait_until.h"
#include "tirn/init.h"
#include "tirn/jiffies.h"
#include "tirn/sched.h"

using namespace tirn::test;

namespace {

std::atomic<uint64_t> g_fired{0};
std::atomic<bool> g_may_end{true};

void count(uint64_t) { ++g_fired; }
void wait_for_end(uint64_t) {
  ++g_fired;
  while (!g_may_end) {
    usleep(1000);
  }
}

kesa_timer make(uint64_t timeout, kesa_timer_fn function = count, uint64_t data = 0) {
  kesa_timer timer{};
  kesa_timer_set(&timer, timeout, data, function);
  return timer;
}

// Adds a timer of either kind; the unit of the timeout differs.
struct Kind {
  const char* name;
  int (*add)(kesa_timer*);
  uint64_t timeout;
};
constexpr Kind kKinds[] = {{"wheel", kesa_timer_add, 5}, {"high resolution", kesa_timer_add_ns, 500'000}};

}  // namespace

TEST(Timer, RefusalsAreLoggedAndChangeNothing) {
  LogCapture log;
  static kesa_timer timer, unset;
  EXPECT_EQ(kesa_timer_add(nullptr), -1);
  EXPECT_TRUE(log.has(HURN_ERROR, "kesa_timer_add", "kesa timer is not inited.")) << log;
  EXPECT_EQ(kesa_timer_delete_sync(&timer), -1);
  EXPECT_TRUE(log.has(HURN_ERROR, "kesa_timer_delete_sync", "kesa timer is not inited.")) << log;
  EXPECT_EQ(kesa_hr_timer_delete(&timer), -1);
  EXPECT_TRUE(log.has(HURN_ERROR, "kesa_hr_timer_delete", "kesa hr timer is not inited.")) << log;
  timer = make(60'000);
  ASSERT_EQ(kesa_timer_module_init(), 0);
  ASSERT_EQ(kesa_timer_module_init(), 0);
  ASSERT_EQ(kesa_timer_add(&timer), 0);
  const struct {
    const char* function;
    const char* line;
    int (*call)();
    int result = -1;
  } kRows[] = {
      {"kesa_timer_init", "Input timer is null.", [] { return kesa_timer_init(nullptr); }},
      {"kesa_timer_set_raw", "Input para is invalid.", [] { return kesa_timer_set(nullptr, 1, 0, count); }},
      {"kesa_timer_set_raw", "Input para is invalid.", [] { return kesa_timer_set(&unset, 1, 0, nullptr); }},
      {"kesa_timer_set_raw", "The timer is pending.", [] { return kesa_timer_set(&timer, 1, 0, count); }},
      {"kesa_timer_add", "Input timer is null or not initiated.", [] { return kesa_timer_add(&unset); }},
      {"kesa_timer_add", "The timer is pending.", [] { return kesa_timer_add(&timer); }},
      {"kesa_timer_add_ns", "Input timer is null or not initiated.", [] { return kesa_timer_add_ns(&unset); }},
      {"kesa_timer_modify", "Input para is invalid.", [] { return kesa_timer_modify(&timer, 0); }},
      {"kesa_timer_modify", "Input para is invalid.", [] { return kesa_timer_modify(&unset, 5); }},
      {"kesa_timer_delete", "Input timer is null.", [] { return kesa_timer_delete(nullptr); }},
      {"kesa_timer_delete_sync", "Input timer is null.", [] { return kesa_timer_destroy(nullptr); }},
      {"kesa_timer_is_pending", "Input timer is null.", [] { return kesa_timer_is_pending(nullptr); }, 0},
      {"kesa_hr_timer_add", "expire must less than 1 ms.",
       [] {
         kesa_timer late = make(1'000'001);
         return kesa_timer_add_ns(&late);
       }},
      {"kesa_hr_timer_modify", "expire must less than 1 ms.", [] { return kesa_hr_timer_modify(&unset, 1'000'001); }},
      {"kesa_timer_create_posix", "Argument NULL in kesa_timer_create_posix, evp: 0x0, timerid: 0x0!\n",
       [] { return kesa_timer_create_posix(0, nullptr, nullptr); }, -EINVAL},
      {"kesa_timer_create_posix", "Argument clockid: 4 is out of range in kesa_timer_create_posix!\n",
       [] {
         sigevent event{};
         timer_t id;
         return kesa_timer_create_posix(4, &event, &id);
       },
       -EINVAL},
      {"kesa_timer_settime_posix", "Argument NULL in kesa_timer_settime_posix, timerid: 0x0, new_value: 0x0!\n",
       [] { return kesa_timer_settime_posix(nullptr, 0, nullptr, nullptr); }, -EINVAL},
      {"kesa_timer_gettime_posix", "Argument NULL in kesa_timer_gettime_posix, timerid: 0x0, curr_value: 0x0!\n",
       [] { return kesa_timer_gettime_posix(nullptr, nullptr); }, -EINVAL},
  };
  for (const auto& row : kRows) {
    log.clear();
    EXPECT_EQ(row.call(), row.result) << row.function << ": " << row.line;
    EXPECT_TRUE(log.has(HURN_ERROR, row.function, row.line)) << log;
  }
  EXPECT_EQ(kesa_timer_is_pending(&timer), 1);
  EXPECT_EQ(timer.timeout, 60'000u);
  EXPECT_EQ(kesa_get_timer_root()->pendingCount, 1u);
  EXPECT_EQ(kesa_hr_timer_delete_sync(nullptr), 0);  // no error
  EXPECT_EQ(kesa_timer_delete(&timer), 0);
  EXPECT_EQ(kesa_timer_delete(&timer), 0);  // no error either
}

TEST(Timer, FiresOnceNotBeforeItsTime) {
  ASSERT_EQ(kesa_timer_module_init(), 0);
  for (const Kind& kind : kKinds) {
    g_fired = 0;
    kesa_timer timer = make(kind.timeout);
    const uint64_t start = kesa_time_getnanosec();
    ASSERT_EQ(kind.add(&timer), 0);
    while (g_fired == 0) {
      usleep(100);
    }
    // The wheel counts in whole milliseconds.
    EXPECT_GE(kesa_time_getnanosec() - start, kind.timeout == 5 ? 4'000'000u : 500'000u) << kind.name;
    EXPECT_EQ(kesa_timer_is_pending(&timer), 0) << kind.name;
    usleep(20'000);
    EXPECT_EQ(g_fired, 1u) << kind.name;
    EXPECT_EQ(kind.add(&timer), 0) << kind.name;
    EXPECT_EQ(kesa_timer_delete_sync(&timer), 0) << kind.name;
  }
}

TEST(Timer, DeleteWaitsForTheCallbackOnlyIfAsked) {
  ASSERT_EQ(kesa_timer_module_init(), 0);
  for (const Kind& kind : kKinds) {
    g_fired = 0;
    g_may_end = false;
    kesa_timer timer = make(kind.timeout, wait_for_end);
    ASSERT_EQ(kind.add(&timer), 0);
    ASSERT_TRUE(wait_until([] { return g_fired == 1; }));
    EXPECT_EQ(kesa_timer_delete(&timer), 0) << kind.name;
    std::atomic<bool> is_back{false};
    std::thread waiter([&] {
      EXPECT_EQ(kesa_timer_delete_sync(&timer), 0) << kind.name;
      is_back = true;
    });
    usleep(20'000);
    EXPECT_FALSE(is_back) << kind.name;
    g_may_end = true;
    waiter.join();
  }
}

// A callback may do with its own timer what it likes: add it again, and free it in the end.
TEST(Timer, CallbacksRearmAndFreeTheirTimer) {
  ASSERT_EQ(kesa_timer_module_init(), 0);
  for (const Kind& kind : kKinds) {
    static const Kind* now;
    now = &kind;
    g_fired = 0;
    auto* const timer = new kesa_timer{};
    kesa_timer_set(timer, kind.timeout, reinterpret_cast<uintptr_t>(timer), [](uint64_t self) {
      auto* const own = reinterpret_cast<kesa_timer*>(self);
      const uint64_t times = ++g_fired;
      if (times == 10) {
        delete own;
      } else if (times % 2 == 0) {
        kesa_timer_modify(own, now->timeout);
        kesa_timer_delete(own);
        now->add(own);
      } else {
        now->add(own);
      }
    });
    ASSERT_EQ(kind.add(timer), 0);
    ASSERT_TRUE(wait_until([] { return g_fired >= 10; })) << kind.name;
  }
  EXPECT_EQ(kesa_get_timer_root()->pendingCount, 0u);
}

// Every timer that is due earlier than the one that the thread sleeps for wakes it; those of one moment keep their
// order. The thread is held meanwhile by a callback.
TEST(HrTimer, FireInTheOrderOfExpiry) {
  static std::vector<uint64_t> order;
  g_fired = 0;
  g_may_end = false;
  kesa_timer holder = make(1, wait_for_end);
  ASSERT_EQ(kesa_timer_add_ns(&holder), 0);
  ASSERT_TRUE(wait_until([] { return g_fired == 1; }));
  const auto note = [](uint64_t data) { order.push_back(data), ++g_fired; };
  static timespec frozen;
  clock_gettime(CLOCK_MONOTONIC, &frozen);
  Imports imports(Object::library);
  imports.redirect(
      "clock_gettime", +[](clockid_t, timespec* time) { return *time = frozen, 0; });
  std::vector<kesa_timer> timers;
  for (const uint64_t delay : {700'000u, 200'000u, 700'000u, 200'000u, 1'000'000u}) {
    timers.push_back(make(delay, note, timers.size()));
  }
  for (kesa_timer& timer : timers) {
    ASSERT_EQ(kesa_timer_add_ns(&timer), 0);
  }
  ASSERT_EQ(kesa_timer_modify(&timers[4], 1), 0);
  LogCapture log;
  char name[] = "timers", word[] = "list_all";
  char* arguments[] = {name, name, word};
  kesa_hr_timer_diagnose_func(2, arguments);
  EXPECT_TRUE(log.has(HURN_INFO, "kesa_hr_timer_diagnose_func", "cmd input wrong.\n")) << log;
  kesa_hr_timer_diagnose_func(3, arguments);
  EXPECT_EQ(log.count("list of timer\n*"), 1u) << log;
  EXPECT_EQ(log.count("1     make                     1            *timer_test.cpp:*\n"), 1u) << log;
  EXPECT_EQ(log.count("5     make                     700000       *timer_test.cpp:*\n"), 1u) << log;
  frozen.tv_sec += 2;
  g_may_end = true;
  ASSERT_TRUE(wait_until([] { return g_fired == 6; }));
  EXPECT_EQ(order, (std::vector<uint64_t>{4, 1, 3, 0, 2}));
}

TEST(HrTimer, ClockThatCannotBeRead) {
  kesa_timer timer = make(1'000'000);
  ASSERT_EQ(kesa_timer_add_ns(&timer), 0);
  ASSERT_EQ(kesa_timer_delete(&timer), 0);
  LogCapture log;
  Imports imports(Object::library);
  static pthread_t self;
  self = pthread_self();
  imports.redirect(
      "clock_gettime", +[](clockid_t clock, timespec* time) {
        return pthread_equal(self, pthread_self()) != 0 ? (errno = EPERM, -1) : clock_gettime(clock, time);
      });
  EXPECT_EQ(kesa_timer_add_ns(&timer), -1);
  EXPECT_EQ(kesa_timer_modify(&timer, 5), -1);
  EXPECT_TRUE(log.has(HURN_ERROR, "kesa_hr_timer_modify", "Get clock time failed, errno 1")) << log;
  EXPECT_EQ(kesa_timer_is_pending(&timer), 0);
}

TEST(PosixTimer, IsMadeSetAndRead) {
  sigevent event{};
  event.sigev_notify = SIGEV_NONE;
  for (const uint32_t clock : {0u, 1u}) {
    timer_t timer;
    ASSERT_EQ(kesa_timer_create_posix(clock, &event, &timer), 0);
    const itimerspec hour{{0, 0}, {3600, 0}};
    itimerspec left{};
    EXPECT_EQ(kesa_timer_settime_posix(timer, 0, &hour, nullptr), 0);
    EXPECT_EQ(kesa_timer_gettime_posix(timer, &left), 0);
    EXPECT_TRUE(left.it_value.tv_sec > 3000 && left.it_value.tv_sec <= 3600);
    EXPECT_EQ(kesa_timer_getoverrun_posix(timer), 0);
    EXPECT_EQ(kesa_timer_delete_posix(timer), 0);
  }
}

// A child has neither thread: the parent's timers do not fire in it, and it starts its own.
TEST(TimerNative, ForkedChildStartsAnew) {
  ASSERT_EQ(kesa_Init(), 0u);
  static kesa_timer wheel = make(50), fine = make(1'000'000), in_tick = make(20);
  g_may_end = false;
  kesa_timer holder = make(1, wait_for_end), first = make(20, wait_for_end);
  ASSERT_EQ(kesa_timer_add_ns(&holder), 0);
  ASSERT_TRUE(wait_until([] { return g_fired == 1; }));
  ASSERT_EQ(kesa_timer_add_ns(&fine), 0);
  // One timer's callback holds the wheel up while another one of the same millisecond waits for its turn.
  do {
    kesa_timer_modify(&first, 20);
    kesa_timer_modify(&in_tick, 20);
  } while (first.expires != in_tick.expires);
  ASSERT_EQ(kesa_timer_add(&wheel), 0);
  ASSERT_TRUE(wait_until([] { return g_fired == 2; }));
  const ChildOutcome outcome = run_child([] {
    g_fired = 0;
    EXPECT_EQ(kesa_timer_add(&wheel), -1);
    EXPECT_EQ(kesa_timer_is_pending(&fine), 0);
    EXPECT_EQ(kesa_timer_is_pending(&in_tick), 0);
    EXPECT_EQ(kesa_timer_module_init(), 0);
    usleep(100'000);
    EXPECT_EQ(g_fired, 0u);
    EXPECT_EQ(kesa_timer_add(&wheel), 0);
    EXPECT_EQ(kesa_timer_add_ns(&fine), 0);
    EXPECT_TRUE(wait_until([] { return g_fired == 2; }));
    return 0;
  });
  EXPECT_TRUE(outcome.exited()) << outcome;
  g_may_end = true;
}
