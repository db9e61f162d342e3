#include "libtirn/base/once.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <latch>
#include <thread>

#include "support/child_process.h"
#include "support/faults.h"
#include "sync/together.h"

using namespace tirn::test;
using tirn::Once;
using Done = Once::Done;
using LockFailure = Once::LockFailure;

namespace {

// Returns an object that is never freed, because the fork handler keeps a list of all that ever ran.
Once& fresh() { return *new Once; }

}  // namespace

// Each row runs the step three times, undoes it twice, and runs it once more.
TEST(Once, WhatCountsAsDone) {
  const struct {
    Done done;
    int result, runs_of_three, last_result;
  } kRows[] = {{Done::kOnSuccess, 0, 1, 0}, {Done::kOnSuccess, -EINVAL, 3, -EINVAL},
               {Done::kAlways, 0, 1, 0},    {Done::kAlways, -EINVAL, 1, 0},
               {Done::kNever, 0, 3, 0},     {Done::kNever, -EINVAL, 3, -EINVAL}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(testing::Message() << "row " << &row - kRows);
    Once& once = fresh();
    int runs = 0, undone = 0;
    const auto run = [&] { return once.run([&] { return ++runs, row.result; }, row.done); };
    for (const int result : {row.result, row.last_result, row.last_result}) {
      EXPECT_EQ(run(), result);
    }
    const bool is_done = row.runs_of_three == 1;
    EXPECT_EQ(runs, row.runs_of_three);
    EXPECT_EQ(once.is_done(), is_done);
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(once.undo([&] { ++undone; }), 0);
    }
    EXPECT_EQ(undone, is_done ? 1 : 0);
    EXPECT_FALSE(once.is_done());
    EXPECT_EQ(run(), row.result);
    EXPECT_EQ(runs, row.runs_of_three + 1);
  }
}

TEST(Once, MutexThatCannotBeLocked) {
  Once& once = fresh();
  const auto step = [] { return -5; };
  const FaultPlan plan{.number = 1, .function = "pthread_mutex_lock", .and_later = true, .object = Object::program};
  {
    const Faults faults(plan);
    EXPECT_EQ(once.run(step), 0);
    EXPECT_EQ(once.run(step, Done::kAlways, LockFailure::kIsResult), EINVAL);
    EXPECT_FALSE(once.is_done());  // only the call's result counted it as done
  }
  EXPECT_EQ(once.run(step, Done::kAlways), -5);
  const Faults faults(plan);
  EXPECT_EQ(once.undo([] { FAIL() << "without the mutex"; }), EINVAL);
  EXPECT_TRUE(once.is_done());
}

TEST(Once, ComesBackFromInside) {
  Once& once = fresh();
  EXPECT_EQ(once.run([&] { return once.run([] { return -3; }); }), 0);
  EXPECT_EQ(once.undo([&] { EXPECT_EQ(once.undo([] { FAIL() << "twice"; }), 0); }), 0);
}

// The first attempt fails, so another thread has to take over. A thread that sees it done must also see the plain
// variable that the step has written.
TEST(Once, ThreadsRaceForOneRun) {
  for (int round = 0; round < 200; ++round) {
    Once& once = fresh();
    std::atomic<int> runs{0};
    int set_up = 0;
    together(4, [&](unsigned) {
      once.run([&] { return set_up = 1, runs.fetch_add(1) == 0 ? -1 : 0; });
      EXPECT_TRUE(!once.is_done() || set_up == 1);
    });
    EXPECT_EQ(runs, 2);
  }
}

// In a forked child, a set-up that another thread was running starts again. Other objects can run there for the first
// time, also after the child has forked in turn. The emulator leaves its own locks locked in a forked child of a
// threaded process.
TEST(OnceNative, BeginsAnewInAForkedChild) {
  Once& once = fresh();
  std::latch inside(1), over(1);
  const std::jthread other([&] { once.run([&] { return inside.count_down(), over.wait(), 0; }); });
  inside.wait();
  const ChildOutcome outcome = run_child([&] {
    int runs = 0;
    once.run([&] { return ++runs, 0; }), fresh().run([&] { return ++runs, 0; });
    const pid_t grandchild = fork();
    if (grandchild == 0) {
      _exit(0);
    }
    fresh().run([&] { return ++runs, 0; });
    return runs == 3 && waitpid(grandchild, nullptr, 0) == grandchild ? 0 : 1;
  });
  over.count_down();
  EXPECT_TRUE(outcome.exited()) << outcome;
}
