#include "tirn/schedwork.h"

#include <gtest/gtest.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>

#include "pool_watch.h"
#include "support/child_process.h"
#include "support/imports.h"
#include "support/kernel_side.h"
#include "support/log_capture.h"
#include "support/thread_end.h"
#include "tirn/init.h"

using namespace tirn::test;

namespace {

constexpr uint64_t kSecond = 250;  // jiffies
const std::string kPid = std::to_string(getpid());
std::atomic<uint32_t> g_runs{0};

int count_run(kesa_sched_work*) { return static_cast<int>(++g_runs); }
bool runs_become(uint32_t runs) {
  return wait_until([runs] { return g_runs == runs; });
}
bool is_queued(const kesa_sched_work& work) { return work.link.next != KESA_LIST_POISON_NEXT; }

// All 64 threads can be busy at once, so none is counted that does not exist. Checks how many of them find no slot.
void expect_whole_pool(const LogCapture& log, uint32_t busy = 0, size_t slots_missing = 0) {
  EXPECT_TRUE(block_threads(64 - busy) &&
              wait_until([&log] { return log.count("All kesa_sched_work threads is running.") > 0; }) &&
              pool_becomes(64))
      << log;
  EXPECT_EQ(log.count("can not find spare index*"), slots_missing) << log;
}

}  // namespace

TEST(Schedwork, WhatIsRefused) {
  LogCapture log;
  kesa_sched_work& work = new_work(nullptr);
  uint32_t index = 77, count = 0;
  kesa_heal_task* task = nullptr;
  const struct {
    int result, expected;
    const char* text;
  } kRows[] = {
      {kesa_sched_add_work(nullptr), -1, "The v_pstWork is equal NULL."},
      {kesa_sched_delete_work(&work), -1, "Deleting work failed, as the sched_work not inited."},
      {kesa_set_sched_work_timeout(nullptr, 15), -1, "param 0x0, timeout 15."},
      {kesa_set_sched_work_timeout(&work, 14), -1, "param 0x*, timeout 14."},
      {kesa_set_sched_work_timeout(&work, 15), 0, "*"},
      {(sched_work_run_task(&work, 0), 0), 0, "NULL sched work data handler, PID = (*)."},
      {kesa_add_sched_work_timeout_check(1, nullptr), -1, "Invalid index, param null."},
      {(kesa_del_sched_work_timeout_check(64), 0), 0, "Invalid index (64).\n"},
      {(kesa_heal_check_callback(nullptr), 0), 0, "Invalid param"},
      {kesa_get_sched_work_heal_task_info(&task, nullptr), -1, "Invalid param, heal_task(0x*), task_num(0x0)."},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(row.result, row.expected) << row.text;
    EXPECT_GT(log.count(HURN_ERROR, row.text), 0u) << row.text << '\n' << log;
  }
  kesa_init_sched_work_heal_task_info();
  EXPECT_EQ(kesa_get_sched_work_heal_task_info(&task, &count), 0);
  EXPECT_TRUE(task->callback == kesa_heal_check_callback && task->numbers[1] == 5 && count == 1);
  for (uint32_t i = 0; i < 64; ++i) {
    EXPECT_TRUE(kesa_add_sched_work_timeout_check(i, &index) == 0 && index == i) << index;
  }
  EXPECT_EQ(kesa_add_sched_work_timeout_check(99, &index), -1);
  EXPECT_TRUE(log.has(HURN_ERROR, "kesa_add_sched_work_timeout_check", "can not find spare index for tid 99."))
      << log;
  kesa_del_sched_work_timeout_check(5);
  EXPECT_TRUE(kesa_add_sched_work_timeout_check(99, &index) == 0 && index == 5) << index;
}

TEST(Schedwork, Queue) {
  LogCapture log;
  have_no_pool_threads();
  kesa_sched_work* works[6];
  for (kesa_sched_work*& work : works) {
    EXPECT_EQ(kesa_sched_add_work(work = &new_work(count_run)), 0);
  }
  EXPECT_EQ(kesa_sched_add_work(works[3]), -1);
  EXPECT_TRUE(log.has(HURN_ERROR, "kesa_sched_add_work", "Work in list is not initial, PID = (" + kPid + ")"));
  EXPECT_EQ(kesa_sched_delete_work(works[1]), 0);
  EXPECT_EQ(kesa_sched_delete_work(works[1]), -55);
  EXPECT_EQ(sched_work_select_task(), works[0]);
  EXPECT_EQ(kesa_sched_add_work(works[0]), 0);
  // The queue is 2, 3, 4, 5, 0. Bad links are logged, with both nodes, and followed as they are.
  works[2]->link.next = &works[4]->link;
  EXPECT_EQ(kesa_sched_delete_work(works[3]), 0);
  EXPECT_TRUE(log.has(HURN_ERROR, "kesa_sched_delete_work", "Abnormal list node prev:*")) << log;
  const std::string shown = ", sched work pData:, sched work process         function: ";
  EXPECT_EQ(log.count(HURN_INFO, "Sched work entry:, schedWork pid:" + kPid + shown), 2u) << log;
  EXPECT_EQ(sched_work_select_task(), works[2]);
  works[4]->link.prev = &works[0]->link;
  EXPECT_EQ(sched_work_select_task(), works[4]);
  EXPECT_TRUE(log.has(HURN_ERROR, "sched_work_select_task", "Abnormal list node prev:*")) << log;
  kesa_sched_add_work(works[1]);  // shows the list's head as if it were a record
  EXPECT_EQ(sched_work_destroy(), 0);
  EXPECT_EQ(sched_work_select_task(), nullptr);
}

// After twelve threads were busy, as many idle ones are left as the maximum says.
TEST(Schedwork, BoundsOfIdleThreads) {
  const struct {
    const char *least, *most;
    size_t threads, threads_left;
  } kRows[] = {{"", "", 4, 8},      {"MIN=2", "MAX=3", 2, 3}, {"MIN=5", "MAX=3", 4, 8}, {"MIN=10", "MAX=20", 4, 8},
               {"MIN=9", "", 4, 8}, {"", "MAX=5", 4, 5}};
  for (const auto& row : kRows) {
    const ChildOutcome outcome = run_child([&row] {
      const std::string item = "\nSCHED_THREAD_FREE_NUM_";
      configure_pool("a=b" + (*row.least != 0 ? item + row.least : "") + (*row.most != 0 ? item + row.most : "") +
                     "\n");
      EXPECT_EQ(sched_work_init() | sched_work_init(), 0);
      EXPECT_TRUE(pool_becomes(row.threads) && block_threads(12) && pool_becomes(12 + row.threads));
      EXPECT_TRUE(free_threads() && pool_becomes(row.threads_left));
      return 0;
    });
    EXPECT_TRUE(outcome.exited()) << row.least << row.most << outcome;
  }
}

TEST(Schedwork, ChecksForWorkThatHangs) {
  KernelSide kernel;
  JiffiesDevice jiffies(kernel);
  constexpr auto kDumpStack = tirn::PrivateCommand::kDumpIdleThreadStack;
  LogCapture log;
  kesa_heal_check check{7};
  const auto verdict_after = [&](uint64_t time) {
    jiffies.advance(time);
    return kesa_heal_check_callback(&check), check.verdict;
  };
  const auto reports = [&log](uint32_t level, const std::string& pid) {
    return log.count(level, "sched work timeout: tid *, pid " + pid);
  };
  ASSERT_TRUE(block_threads(1) && block_threads(2, 15));
  EXPECT_EQ(verdict_after(15 * kSecond), 1u);
  EXPECT_EQ(kernel.calls(kDumpStack), 0u);
  EXPECT_EQ(verdict_after(1), 1u);
  EXPECT_TRUE(reports(HURN_WARNING, kPid + ".") == 1 && kernel.calls(kDumpStack) == 1) << log;
  EXPECT_TRUE(free_threads() && wait_until([] { return kesa_sched_work_timeout_theck() == 0; }));

  ASSERT_TRUE(block_threads(63));
  EXPECT_EQ(verdict_after(0) + verdict_after(1000 * kSecond), 2u);  // one thread is left
  expect_whole_pool(log, 63);
  kesa_sched_work& waiting = new_work(count_run);
  EXPECT_EQ(kesa_sched_add_work(&waiting), 0);
  EXPECT_EQ(verdict_after(0) + verdict_after(180 * kSecond - 1), 2u);
  EXPECT_EQ(reports(HURN_ERROR, "0. "), 0u);
  EXPECT_EQ(verdict_after(1) + verdict_after(1), 0u);
  EXPECT_TRUE(reports(HURN_ERROR, "0. ") == 8 && kernel.calls(kDumpStack) == 9) << log;
  EXPECT_TRUE(is_queued(waiting) && free_threads() && runs_become(1));
  EXPECT_EQ(verdict_after(0), 1u);
}

namespace {

__thread bool t_destroys;
std::atomic<size_t> g_pauses{0};
kesa_sched_work *g_early, *g_late;

// Runs in each pause of sched_work_destroy. One idle thread is woken by the early record, the other three one by one.
int pause_of_destroy(int, fd_set*, fd_set*, fd_set*, timeval* time) {
  if (t_destroys) {
    const size_t pause = g_pauses++;
    EXPECT_TRUE(pause > 1 || kesa_sched_add_work(pause == 0 ? g_early : g_late) >= 0);
    EXPECT_TRUE(pause == 0 || pause == 3 ? pool_becomes(4 - pause) : true);
  }
  return select(0, nullptr, nullptr, nullptr, time);
}

}  // namespace

TEST(Schedwork, EndOfThePool) {
  LogCapture log;
  g_early = &new_work(count_run);
  g_late = &new_work(count_run);
  ASSERT_TRUE(block_threads(1) && pool_becomes(5));
  {
    Imports imports(Object::library);
    imports.redirect("select", pause_of_destroy);
    t_destroys = true;
    EXPECT_EQ(sched_work_destroy() | sched_work_destroy(), 0);
    t_destroys = false;
  }
  EXPECT_EQ(g_pauses, 4u);  // the second call does nothing
  EXPECT_EQ(log.count(HURN_ERROR, "In destroying, adding v_pstWork failed."), 2u);
  EXPECT_TRUE(log.has(HURN_DEBUG, "sched_work_destroy", "some sched work thread exited abnormally. totalThread = 1"))
      << log;
  EXPECT_TRUE(!is_queued(*g_early) && is_queued(*g_late));
  // The next addition starts a pool, which runs the late record too. The busy thread ends uncounted; its slot stays.
  kesa_sched_add_work(&new_work(count_run));
  EXPECT_TRUE(runs_become(2) && free_threads());
  expect_whole_pool(log, 0, 1);
  EXPECT_TRUE(sched_work_destroy() == 0 && free_threads() && pool_becomes(0));
}

TEST(Schedwork, HandlersThatEndTheirThreads) {
  LogCapture log;
  const auto end_thread = [](kesa_sched_work*) -> int {
    ++g_runs;
    leave_frames();
    pthread_exit(nullptr);
  };
  for (uint32_t ended = 1; ended <= 100; ++ended) {
    kesa_sched_add_work(&new_work(end_thread, 15));
    ASSERT_TRUE(runs_become(ended));
  }
  EXPECT_TRUE(pool_becomes(4));
  expect_whole_pool(log);
  EXPECT_TRUE(free_threads() && pool_becomes(8));
}

TEST(Schedwork, ThreadsThatCannotBeStarted) {
  LogCapture log;
  kesa_sched_work& work = new_work(count_run);
  {
    Imports imports(Object::library);
    imports.redirect(
        "pthread_create", +[](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; });
    EXPECT_EQ(kesa_sched_add_work(&work), -1);
    EXPECT_EQ(kesa_Init(), ~0u);
  }
  for (const char* const text : {"Adding work failed, as the result of initing sched_work failed",
                                 "Kesa schedWork initialize failed.", "Create sched work thread fail."}) {
    EXPECT_GT(log.count(HURN_ERROR, text), 0u) << text << '\n' << log;
  }
  EXPECT_TRUE(kesa_Init() == 0 && pool_becomes(4) && kesa_sched_add_work(&work) == 0 && runs_become(1));
  EXPECT_TRUE(kesa_destory() == 0 && pool_becomes(0));
}

// The emulator leaves its own locks locked in a threaded process's child.
TEST(SchedworkNative, ForkedChildStartsItsOwnPool) {
  TIRN_NEEDS_FORKS();
  LogCapture log;
  kesa_sched_work& queued = new_work(count_run);
  ASSERT_TRUE(kesa_Init() == 0 && block_threads(64, 15) && kesa_sched_add_work(&queued) == 0);
  const ChildOutcome outcome = run_child([&] {
    g_inside = 0;
    EXPECT_TRUE(kesa_Init() == 0 && kesa_sched_delete_work(&queued) == -1 && kesa_sched_add_work(&queued) == 0);
    EXPECT_TRUE(runs_become(1));
    expect_whole_pool(log);
    return 0;
  });
  EXPECT_TRUE(outcome.exited()) << outcome;
  EXPECT_TRUE(is_queued(queued) && free_threads() && runs_become(1));
}
