#include "libtirn/base/once.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

#include "support/faults.h"

using namespace tirn::test;
using tirn::Once;
using Done = Once::Done;
using LockFailure = Once::LockFailure;

namespace {

struct Step {
  int result;
  int runs = 0;
  auto operator()() {
    return [this] {
      ++runs;
      return result;
    };
  }
};

// Not freed: the fork handler goes through all that ever ran.
Once& fresh() { return *new Once; }

TEST(Once, WhatCountsAsDone) {
  constexpr int kFailure = -22;
  const struct {
    const char* name;
    Done done;
    int result;
    int runs_of_three;
    int last_result;
  } kRows[] = {
      {"success", Done::kOnSuccess, tirn::kOk, 1, tirn::kOk},
      {"failure is tried again", Done::kOnSuccess, kFailure, 3, kFailure},
      {"success, done whatever the result", Done::kAlways, tirn::kOk, 1, tirn::kOk},
      {"failure, done whatever the result", Done::kAlways, kFailure, 1, tirn::kOk},
      {"never done", Done::kNever, tirn::kOk, 3, tirn::kOk},
      {"never done, failing", Done::kNever, kFailure, 3, kFailure},
  };
  for (const auto& row : kRows) {
    Once& once = fresh();
    Step step{row.result};
    EXPECT_EQ(once.run(step(), row.done), row.result) << row.name;
    once.run(step(), row.done);
    EXPECT_EQ(once.run(step(), row.done), row.last_result) << row.name;
    EXPECT_EQ(step.runs, row.runs_of_three) << row.name;
    EXPECT_EQ(once.is_done(), row.runs_of_three == 1) << row.name;
  }
}

TEST(Once, UndoneOnceAndDoneAgain) {
  Once& once = fresh();
  Step set_up{tirn::kOk};
  int undone = 0;
  const auto tear_down = [&] { ++undone; };
  EXPECT_EQ(once.undo(tear_down), tirn::kOk);
  EXPECT_EQ(undone, 0);
  once.run(set_up());
  EXPECT_EQ(once.undo(tear_down), 0);
  EXPECT_FALSE(once.is_done());
  EXPECT_EQ(once.undo(tear_down), tirn::kOk);
  EXPECT_EQ(undone, 1);
  once.run(set_up());
  EXPECT_EQ(set_up.runs, 2);
}

TEST(Once, MutexThatCannotBeLocked) {
  Once& once = fresh();
  Step step{-5};
  {
    const Faults faults(
        {.number = 1, .function = "pthread_mutex_lock", .and_later = true, .object = Object::program});
    EXPECT_EQ(once.run(step()), tirn::kOk);
    EXPECT_EQ(once.run(step(), Done::kAlways, LockFailure::kIsResult), EINVAL);
  }
  EXPECT_EQ(step.runs, 0);
  EXPECT_FALSE(once.is_done());  // only the caller was told so
  EXPECT_EQ(once.run(step(), Done::kAlways), -5);
  {
    const Faults faults({.number = 1, .function = "pthread_mutex_lock", .object = Object::program});
    EXPECT_EQ(once.undo([] { FAIL() << "without the mutex"; }), EINVAL);
  }
  EXPECT_TRUE(once.is_done());
}

TEST(Once, ComesBackFromInside) {
  Once& once = fresh();
  Step inner{-3};
  EXPECT_EQ(once.run([&] { return once.run(inner()) + once.undo([] {}); }), tirn::kOk);
  EXPECT_EQ(inner.runs, 0);
}

TEST(Once, ThreadsRaceForOneRun) {
  constexpr int kThreads = 4;
  for (int round = 0; round < 200; ++round) {
    Once& once = fresh();
    std::atomic<int> runs{0};
    int set_up = 0;  // plain: whoever is told that it is done must see it
    std::atomic<int> waiting{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        ++waiting;
        while (waiting.load() < kThreads) {
          std::this_thread::yield();
        }
        once.run([&] {
          // The first attempt fails, so that another thread has to take over.
          set_up = round + 1;
          return runs.fetch_add(1) == 0 ? -1 : tirn::kOk;
        });
        if (once.is_done()) {
          EXPECT_EQ(set_up, round + 1);
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    EXPECT_EQ(runs.load(), 2);
  }
}

}  // namespace
