// The thin functions of threads, one row each, and what a thread is left with.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "support/child_process.h"
#include "support/kernel_side.h"
#include "support/log_capture.h"
#include "thread_jobs.h"
#include "tirn/sched.h"

using namespace tirn::test;

namespace {

int nice_value() { return getpriority(PRIO_PROCESS, 0); }
void* nothing(void*) { return nullptr; }

struct Row {
  const char* name;
  long (*call)();
  long expected;
};

void expect_rows(const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    EXPECT_EQ(row.call(), row.expected) << row.name;
  }
}

uint32_t references() { return __atomic_load_n(&m_current_thread->slot->refs, __ATOMIC_ACQUIRE); }

}  // namespace

TEST(ThreadFacts, ThinFunctions) {
  ASSERT_EQ(kesa_thrd_setcurthreadinfo(), 0);
  const kesa_lwt_stack_ops ops{[](uint64_t) { return 0; }, [](uint64_t, uint64_t*, uint64_t*) { return 0; }};
  register_lwt_stack_ops(&ops);
  expect_rows({
      {"gettid", [] { return kesa_thrd_gettid_accl() == pthread_self() ? 1L : 0L; }, 1},
      {"gettid again", [] { return kesa_thrd_gettid_accl() == pthread_self() ? 1L : 0L; }, 1},
      {"core 0", [] { return kesa_thrd_core_set(0), g_siKesaThrdPID = 0, long{smp_processor_id()}; }, 0},
      {"core 1023", [] { return kesa_thrd_core_set(1023), long{smp_processor_id()}; }, 1023},
      {"pid", [] { return long{kesa_thrd_getpid_accl()} - getpid(); }, 0},
      {"numa", [] { return kesa_thrd_numaId_set(3), long{kesa_thrd_numaId_get()}; }, 3},
      {"yield", [] { return long{kesa_thrd_yield()}; }, 0},
      {"unknown stack",
       [] { return kesa_thrd_setunknownstacksize(8192), static_cast<long>(kesa_thrd_getunknownstacksize()); }, 8192},
      {"lwt ops", [] { return long{kesa_thrd_islwtstack(1)}; }, 0},
      {"no lwt ops", [] { return unregister_lwt_stack_ops(), long{kesa_thrd_islwtstack(1)}; }, -1},
      {"attr NULL",
       [] {
         return long{kesa_thrd_attr_init(nullptr)} + kesa_thrd_attr_destroy(nullptr) +
                kesa_thrd_setstacksize(nullptr, 1 << 20);
       },
       -3},
      {"list NULL", [] { return kesa_thrd_list(nullptr, 0, 0, 0, 0), 0L; }, 0},
      {"no function",
       [] {
         return long{kesa_thrd_create(nullptr, nullptr, nullptr)} + create_thread_raw(nullptr, nullptr, nullptr) +
                create_thread_nopreempt_raw(nullptr, nullptr, nullptr) +
                kesa_thrd_create_attr(nullptr, nullptr, nullptr, nullptr) +
                create_thread_raw_base(nullptr, nullptr, nothing, nullptr, nullptr) +
                create_thread_from_thread_pool(nullptr, nullptr, nullptr);
       },
       -6},
      {"in an irq",
       [] {
         uint32_t saved;
         kesa_thread_run_in_irq_context_save(&saved);
         return long{kesa_thread_run_in_irq_context_check()} * 10 + kesa_thread_run_in_iod_context_check();
       },
       10},
      {"in an iod",
       [] { return kesa_thread_run_in_iod_context_init(4), long{kesa_thread_run_in_iod_context_check()}; }, 1},
      {"references",
       [] {
         uint64_t start, end;
         return kesa_thread_get_specific_stack(static_cast<uint32_t>(gettid()), &start, &end) + long{references()};
       },
       1},
  });
  kesa_thrd_clearcurthreadinfo();
  stack_t signal_stack;
  sigaltstack(nullptr, &signal_stack);
  EXPECT_EQ(signal_stack.ss_flags, SS_DISABLE);
}

TEST(ThreadFacts, KernelSideQueries) {
  KernelSide kernel;
  LogCapture log;
  kernel.replace(0x704,
                 [](uint64_t, uint64_t tid, uint64_t, uint64_t, uint64_t) -> long { return tid == 77 ? 5 : 6; });
  EXPECT_EQ(kesa_thrd_dump_thread_stack_if_not_running(77), 5);
  for (const uint32_t command : {0x701u, 0x702u, 0x703u}) {
    kernel.failing(command, EPERM);
  }
  EXPECT_EQ(kesa_thrd_getstatus(1) + kesa_thrd_dump_cpu_stack_knl(0) * 10 + kesa_thrd_dump_cpu_stack(0) * 100, -100);
  EXPECT_TRUE(log.has(HURN_INFO, "kesa_thrd_getstatus", "Kesa syscall for thrd_getstatus failed.")) << log;
  EXPECT_TRUE(log.has(HURN_ERROR, "kesa_thrd_dump_cpu_stack_knl", "Kesa syscall for cur_cpu_thrd_getstatus failed."))
      << log;
  kernel.replace(0x703, [](uint64_t, uint64_t cpu, uint64_t, uint64_t, uint64_t) -> long {
    return *reinterpret_cast<const uint32_t*>(cpu) == 1 ? 0 : -1;
  });
  EXPECT_EQ(kesa_thrd_dump_cpu_stack(1), 0);
}

// Each way of starting a thread: detached, its stack without the guard area, strategy 0 where the way takes it.
// The emulator refuses CPU sets of less than a word, which the kernel takes.
TEST(ThreadFactsNative, StackAttributesAndStrategy) {
  const int before = nice_value();
  const KesaThreadStrategyCfg row{static_cast<uint32_t>(before + 2), "0-1023"};
  ASSERT_EQ(kesa_initThreadStrategy(0, &row), 0);
  const Create plain = [](kesa_thread_fn fn, void* arg, pthread_t* id) {
    return kesa_thrd_create_attr(fn, arg, id, nullptr);
  };
  for (const Create create : {Create{create_thread_raw}, plain}) {
    EXPECT_TRUE(run_in_thread(create, [&] {
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
      EXPECT_EQ(m_current_thread->stack_low, reinterpret_cast<uintptr_t>(address) + guard);
      EXPECT_EQ(m_current_thread->strategy, create == create_thread_raw ? 0 : -1);
      EXPECT_EQ(nice_value(), create == create_thread_raw ? before + 2 : before);
    }));
  }
  EXPECT_TRUE(run_in_thread(create_thread_raw, [] {
    const int kNice[] = {-20, -15, 0, 10, 15};
    for (uint32_t level = 0; level < 5; ++level) {
      if (kesa_thrd_setprio(level) == 0) {  // lower values are root's
        EXPECT_EQ(nice_value(), kNice[level]);
      }
    }
  }));
}

// The emulator refuses CPU sets of less than a word, which the kernel takes.
TEST(ThreadFactsNative, WhatAJobLeavesToTheNext) {
  const int before = nice_value();
  const KesaThreadStrategyCfg row{static_cast<uint32_t>(before + 3), "0-1023"};
  ASSERT_EQ(kesa_initThreadStrategy(0, &row), 0);
  ASSERT_EQ(kesa_thread_pool_create(1), 1u);
  static pthread_t given, runs_on;
  const auto run = [](std::function<void()> body) {
    Job job(std::move(body));
    const Create create = [](kesa_thread_fn fn, void* arg, pthread_t*) {
      return create_thread_from_thread_pool(fn, arg, &given);
    };
    EXPECT_TRUE(wait_until([&] { return job.start(create) == 0; }));
    EXPECT_TRUE(job.wait());
  };
  run([] {
    runs_on = pthread_self();
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
    kesa_thread_run_in_iod_context_init(9);
    kesa_thrd_core_set(5);
    setpriority(PRIO_PROCESS, 0, 17);
  });
  EXPECT_EQ(given, runs_on);
  run([before] {
    int type = -1;
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
    EXPECT_EQ(type, PTHREAD_CANCEL_DEFERRED);
    EXPECT_EQ(nice_value(), before + 3);
    EXPECT_EQ(kesa_thread_iod_thread_id_get(), 9u);
    EXPECT_EQ(smp_processor_id(), 5);
    EXPECT_TRUE(wait_until([] { return references() == 1; }));
  });
}

// Sleeps that a signal ends keep errno as well.
TEST(ThreadFacts, InterruptedSleepKeepsErrno) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, nullptr);
  const itimerval often{{0, 2000}, {0, 2000}};
  setitimer(ITIMER_REAL, &often, nullptr);
  for (int (*const sleep)(uint32_t) : {kesa_msleep, kesa_10msleep}) {
    errno = 77;
    EXPECT_EQ(sleep(100000), 0);
    EXPECT_EQ(errno, 77);
  }
}

// A job that is given in a forked child runs there, on a thread or on the child's own pool. The emulator loses locks of its
// own in a child of a threaded process.
TEST(ThreadFactsNative, PoolOfAForkedChild) {
  ASSERT_GE(kesa_thread_pool_create(4), 1u);
  ASSERT_EQ(kesa_thrd_setcurthreadinfo(), 0);
  const ChildOutcome outcome = run_child([] {
    EXPECT_EQ(create_thread_from_thread_pool(nothing, nullptr, nullptr), -1);
    EXPECT_TRUE(run_in_thread(kesa_thrd_create, [] {}));
    EXPECT_EQ(m_current_thread->tid, static_cast<uint32_t>(gettid()));
    EXPECT_EQ(m_current_thread->pid, getpid());
    EXPECT_GE(kesa_thread_pool_create(2), 1u);
    Job job([] { EXPECT_STREQ(kesa_thrd_getname(), "OSThrdPoolRun"); });
    EXPECT_TRUE(wait_until([&] { return job.start(create_thread_from_thread_pool) == 0; }));
    EXPECT_TRUE(job.wait());
    return 0;
  });
  EXPECT_TRUE(outcome.exited()) << outcome;
}
