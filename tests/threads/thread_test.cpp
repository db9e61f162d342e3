#include "tirn/thread.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>

#include "support/child_process.h"
#include "support/faults.h"
#include "support/printed.h"
#include "support/wait_until.h"
#include "thread_jobs.h"
#include "tirn/shm.h"

using namespace tirn::test;

namespace {

bool is_alive(uint32_t tid) {
  kesa_thread_s* const record = kesa_thrd_getthreadinfobytid(tid);
  kesa_thrd_putthreadinfo(record);
  return record != nullptr;
}

int lwt_yes(uint64_t sp) { return sp == 0x1000 || sp == 0x2000 ? 0 : -1; }
int lwt_bounds(uint64_t sp, uint64_t* start, uint64_t* end) {
  *start = *end = 0x1000;
  return sp == 0x1000 ? 0 : -1;
}

__attribute__((noinline)) void trace_and_break_frames() {
  uint64_t whole[3], skipped[2], broken[4];
  EXPECT_EQ(kesa_thrd_backtrace(whole, 3, 0), 0);
  EXPECT_EQ(kesa_thrd_backtrace(skipped, 2, 1), 0);
  auto* const frame = static_cast<volatile uint64_t*>(__builtin_frame_address(0));
  const uint64_t caller = frame[0];
  frame[0] = 1;
  const int result = kesa_thrd_backtrace(broken, 4, 0);
  frame[0] = caller;
  EXPECT_EQ(result, 0);
  EXPECT_EQ(whole[1], reinterpret_cast<uintptr_t>(__builtin_return_address(0)));
  EXPECT_TRUE(skipped[0] == whole[1] && skipped[1] == whole[2] && broken[1] == whole[1]);
  EXPECT_TRUE(broken[2] == 0 && broken[3] == 0);
}

}  // namespace

TEST(Thread, EachWayOfStartingOne) {
  kesa_set_instant_map_flag();
  for (const Create create :
       {Create{kesa_thrd_create}, Create{create_thread_raw}, create_thread_nopreempt_raw, create_plain}) {
    uint32_t tid = 0;
    ASSERT_TRUE(run_in_thread(create, [&] {
      tid = kesa_thread_get_knl_tid();
      EXPECT_EQ(tid, static_cast<uint32_t>(gettid()));
      EXPECT_TRUE(is_alive(tid));
      // Nothing of the slot's former thread is left.
      EXPECT_STREQ(kesa_thrd_getname(), "[NULL]");
      EXPECT_EQ(kesa_thread_iod_thread_id_get(), KESA_THREAD_NO_IOD_ID);
      EXPECT_EQ(kesa_thread_run_in_irq_context_check(), 0);
      EXPECT_EQ(kesa_thread_run_in_iod_context_check(), 0);
      kesa_thrd_setname("former");
      uint32_t saved = 9;
      kesa_thread_run_in_iod_context_init(7);
      kesa_thread_run_in_irq_context_save(&saved);
      EXPECT_EQ(saved, uint32_t{KESA_THREAD_CONTEXT_IOD});
      uint64_t start, end;
      ASSERT_EQ(kesa_thread_get_specific_stack(tid, &start, &end), 0);
      const auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
      EXPECT_TRUE(start < here && here < end);
      EXPECT_EQ(end - start <= 8 * KESA_THREAD_SMALL_STACK, create == create_thread_nopreempt_raw);
      stack_t signal_stack;
      sigaltstack(nullptr, &signal_stack);
      EXPECT_EQ(signal_stack.ss_sp, m_current_thread->signal_stack);
      pthread_attr_t attributes;
      int detached = -1;
      void* address;
      size_t size, guard;
      pthread_getattr_np(pthread_self(), &attributes);
      pthread_attr_getdetachstate(&attributes, &detached);
      pthread_attr_getstack(&attributes, &address, &size);
      pthread_attr_getguardsize(&attributes, &guard);
      pthread_attr_destroy(&attributes);
      EXPECT_EQ(detached, PTHREAD_CREATE_DETACHED);
      EXPECT_EQ(start, reinterpret_cast<uintptr_t>(address) + guard);
    }));
    EXPECT_TRUE(wait_until([tid] { return !is_alive(tid); }));
  }
}

TEST(Thread, NamesListAndAdoption) {
  LogCapture log;
  int (*const set_name)(const char*, ...) = kesa_thrd_setname;  // avoids the compiler's format checks
  EXPECT_EQ(set_name("x%d", 1), 0);
  EXPECT_EQ(kesa_thrd_getname(), nullptr);
  EXPECT_EQ(kesa_thrd_clearcurthreadinfo(), -1);
  ASSERT_EQ(kesa_thrd_setcurthreadinfo(), 0);
  EXPECT_EQ(kesa_thrd_setcurthreadinfo(), 0);
  EXPECT_EQ(set_name(nullptr), 0);
  EXPECT_EQ(set_name(""), 0);
  EXPECT_EQ(log.texts(),
            (std::vector<std::string>{"Kesa set thrd name(x%d) fail, please use kesa or Moru create thrd.",
                                      "Kesa set thrd name(NULL) fail.", "vsnprintf_s failed, name()."}));
  EXPECT_STREQ(kesa_thrd_getname(), "[NULL]");
  EXPECT_EQ(set_name("%s", "12345678901234567890"), 0);
  char name[16];
  prctl(PR_GET_NAME, name);
  EXPECT_STREQ(name, "123456789012345");
  std::string tid = std::to_string(gettid());
  EXPECT_EQ(printed([](kesa_print_fn print) { kesa_thrd_list(print, 0, 0, 0, 0); }),
            "list threads flag(0:preempt 1:nonpreempt) created by kesa:\n"
            "tid   name               preemptflag strategy\n" +
                tid.insert(0, tid.size() < 5 ? 5 - tid.size() : 0, ' ') +
                " 123456789012345    0           -1      \n");
  EXPECT_EQ(kesa_thrd_clearcurthreadinfo(), 0);
  EXPECT_FALSE(is_alive(static_cast<uint32_t>(gettid())));
}

TEST(Thread, StackOfAnAddressAndBacktrace) {
  uint64_t start = 0, end = 0;
  const char* name = nullptr;
  const auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  EXPECT_EQ(kesa_thrd_getcurrentstack(here, &start, &end, nullptr), -1);
  EXPECT_EQ(kesa_thrd_getcurrentstack(here, &start, &end, &name), 0);
  EXPECT_STREQ(name, "UNKNOWN_STACK");
  EXPECT_TRUE(start == here - here % 4096 && end == start + 4096);
  ASSERT_EQ(kesa_thrd_setcurthreadinfo(), 0);
  const kesa_lwt_stack_ops ops{lwt_yes, lwt_bounds};
  EXPECT_EQ(register_lwt_stack_ops(&ops), 0);
  const uint64_t low = m_current_thread->stack_low, high = m_current_thread->stack_high;
  const auto signal = reinterpret_cast<uintptr_t>(m_current_thread->signal_stack);
  const struct {
    uint64_t sp;
    const char* name;
    uint64_t start;
  } kRows[] = {{low, "OS_STACK", low},
               {high - 1, "OS_STACK", low},
               {low - 4096, "OS_STACK", low},
               {low - 4097, "INVALID_STACK", 0},
               {signal, "SIG_STACK", signal},
               {signal + KESA_THREAD_SIGNAL_STACK - 1, "SIG_STACK", signal},
               {signal + KESA_THREAD_SIGNAL_STACK, "INVALID_STACK", 0},
               {~uint64_t{0}, "INVALID_STACK", 0},
               {0x1000, "LWT_STACK", 0x1000},
               {0x2000, "INVALID_LWT_STACK", 0}};
  for (const auto& row : kRows) {
    start = 0;
    EXPECT_EQ(kesa_thrd_getcurrentstack(row.sp, &start, &end, &name), row.start != 0 ? 0 : -1) << std::hex << row.sp;
    EXPECT_STREQ(name, row.name) << std::hex << row.sp;
    EXPECT_EQ(start, row.start) << std::hex << row.sp;
  }
  trace_and_break_frames();
}

// Not under emulation, where the program's name is the emulator's.
TEST(ThreadNative, NamesAndIdsOfTheProcess) {
  LogCapture log;
  const Faults counter({.number = 0});
  char name[64];
  EXPECT_EQ(kesa_get_process_exe_name(nullptr, 9), -1);
  EXPECT_EQ(kesa_get_process_exe_name(name, 0), -1);
  EXPECT_EQ(kesa_get_process_exe_name(name, sizeof name), 0);
  EXPECT_STREQ(name, "thread_test");
  EXPECT_EQ(kesa_get_process_exe_name(name, 7), 0);
  EXPECT_STREQ(name, "thread");
  EXPECT_EQ(kesa_get_process_name(nullptr, 9), -1);
  EXPECT_EQ(kesa_get_process_name(name, 7), 0);
  EXPECT_STREQ(name, "thread");
  EXPECT_EQ(log.count(HURN_ERROR, "*"), 3u) << log;
  EXPECT_EQ(counter.inheritable(), 0u);
  const int parent = kesa_thrd_getpid_accl();
  EXPECT_EQ(kesa_thread_watch_add(42), 0);
  EXPECT_TRUE(run_child([parent] {
                EXPECT_EQ(kesa_thrd_getpid_accl(), parent) << "not set anew yet";
                EXPECT_EQ(kesa_thrd_setpid_accl(), 0);
                EXPECT_EQ(kesa_thrd_getpid_accl(), getpid());
                EXPECT_EQ(kesa_thread_watch_get(), 42u);
                return kesa_thread_watch_add(43);
              }).exited());
  EXPECT_EQ(kesa_thread_watch_get(), 43u);
  EXPECT_EQ(kesa_thread_watch_del(), 0);
  EXPECT_EQ(kesa_thread_watch_get(), 0u);
  kesa_shm_destroy("kesaThreadWatch");
}

// Not under emulation: the emulator refuses CPU sets that are shorter than a word, which the kernel accepts.
TEST(ThreadPoolNative, WorkersTakeJobsUntilTheEnd) {
  LogCapture log;
  EXPECT_EQ(kesa_thread_pool_create(0), 0u);
  ASSERT_EQ(kesa_thread_pool_create(2), 1u);  // the spawner, which starts the second worker
  EXPECT_EQ(kesa_thread_pool_create(9999), 0u);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{"Create OS thread pool 2, success 1.",
                                                   "OS thread pool just allowed create once 2048."}));
  for (int round = 0; round < 2; ++round) {
    std::atomic<bool> gate{false};
    const auto body = [&] {
      EXPECT_STREQ(kesa_thrd_getname(), "OSThrdPoolRun");
      gate.wait(false);
    };
    Job first(body), second(body), third([] { EXPECT_STREQ(kesa_thrd_getname(), "[NULL]"); });
    for (Job* const job : {&first, &second}) {
      EXPECT_TRUE(wait_until([&] { return job->start(create_thread_from_thread_pool) == 0; }));
    }
    EXPECT_EQ(third.start(create_thread_from_thread_pool), -1);
    EXPECT_EQ(third.start(kesa_thrd_create), 0);
    gate = true;
    gate.notify_all();
    EXPECT_TRUE(first.wait() && second.wait() && third.wait());
  }
  EXPECT_TRUE(wait_until([] { return kesa_thread_pool_destroy() == 0; }));
  EXPECT_EQ(log.count(HURN_INFO, "TBA:res1 2, res2 *."), 1u) << log;
  EXPECT_EQ(kesa_thread_pool_create(2), 0u);
}

// A worker whose job was cancelled too late ends after that job. The next job gets another worker, and runs.
TEST(ThreadPool, CancellationOfAJobDoesNotReachTheNext) {
  ASSERT_GE(kesa_thread_pool_create(2), 1u);
  Job cancelled([] { pthread_cancel(pthread_self()); }), next([] {});
  EXPECT_TRUE(wait_until([&] { return cancelled.start(create_thread_from_thread_pool) == 0; }));
  EXPECT_TRUE(cancelled.wait());
  EXPECT_TRUE(wait_until([&] { return next.start(create_thread_from_thread_pool) == 0; }));
  EXPECT_TRUE(next.wait());
}

// A thread's function may give the record back itself, or end the thread. Either way, the record is given back
// exactly once, and can be used again.
TEST(Thread, EndsInItsFunctionGiveTheRecordBackOnce) {
  constexpr kesa_thread_fn kEnds[] = {[](void* arg) {
                                        EXPECT_EQ(kesa_thrd_clearcurthreadinfo(), 0);
                                        EXPECT_EQ(kesa_thrd_clearcurthreadinfo(), -1);
                                        return arg;
                                      },
                                      [](void*) -> void* { pthread_exit(nullptr); }};
  ASSERT_EQ(kesa_thrd_setcurthreadinfo(), 0);
  const ThreadSlot& next = m_current_thread->slot[1];
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(kesa_thrd_create(kEnds[i % 2], nullptr, nullptr), 0);
  }
  EXPECT_TRUE(wait_until([&next] {
    bool is_next = false;
    return run_in_thread(kesa_thrd_create, [&] { is_next = m_current_thread->slot == &next; }) && is_next;
  }));
}
