// Tests the small functions for threads, and the state that a thread starts and ends with.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "support/child_process.h"
#include "support/imports.h"
#include "support/kernel_side.h"
#include "support/log_capture.h"
#include "thread_jobs.h"
#include "tirn/sched.h"

using namespace tirn::test;

namespace {

int nice_value() { return getpriority(PRIO_PROCESS, 0); }
void* nothing(void*) { return nullptr; }

uint32_t references() { return __atomic_load_n(&m_current_thread->slot->refs, __ATOMIC_ACQUIRE); }

}  // namespace

TEST(ThreadFacts, ThinFunctions) {
  {
    static int destroyed;
    Imports imports(Object::library);
    imports.redirect("pthread_attr_destroy",
                     [](pthread_attr_t* attributes) { return ++destroyed, pthread_attr_destroy(attributes); });
    ASSERT_EQ(kesa_thrd_setcurthreadinfo(), 0);
    EXPECT_EQ(destroyed, 1) << "they hold a set of CPUs";
  }
  EXPECT_EQ(kesa_thrd_gettid_accl(), pthread_self());
  EXPECT_EQ(kesa_thrd_gettid_accl(), pthread_self()) << "kept";
  kesa_thrd_core_set(0);
  g_siKesaThrdPID = 0;
  EXPECT_EQ(smp_processor_id(), 0);
  EXPECT_EQ(kesa_thrd_getpid_accl(), getpid());
  kesa_thrd_numaId_set(3);
  EXPECT_EQ(kesa_thrd_numaId_get(), 3);
  EXPECT_EQ(kesa_thrd_yield(), 0);
  kesa_thrd_setunknownstacksize(8192);
  EXPECT_EQ(kesa_thrd_getunknownstacksize(), 8192u);
  const kesa_lwt_stack_ops ops{[](uint64_t) { return 0; }, [](uint64_t, uint64_t*, uint64_t*) { return 0; }};
  register_lwt_stack_ops(&ops);
  EXPECT_EQ(kesa_thrd_islwtstack(1), 0);
  unregister_lwt_stack_ops();
  EXPECT_EQ(kesa_thrd_islwtstack(1), -1);
  uint64_t start, end;
  EXPECT_EQ(kesa_thread_get_specific_stack(static_cast<uint32_t>(gettid()), &start, &end), 0);
  EXPECT_EQ(references(), 1u);
  // The query also works for another process, whose set of CPUs is a different one.
  cpu_set_t own{}, theirs{}, answer{};
  CPU_SET(static_cast<unsigned>(sched_getcpu()), &own);
  sched_setaffinity(0, sizeof own, &own);
  sched_getaffinity(getppid(), sizeof theirs, &theirs);
  EXPECT_EQ(kesa_thrd_getbindcpu_bypid(getppid(), &answer), 0);
  EXPECT_TRUE(CPU_EQUAL(&answer, &theirs));
  // Each function refuses a NULL argument that it needs.
  kesa_thrd_list(nullptr, 0, 0, 0, 0);
  for (const Create create : {Create{kesa_thrd_create}, Create{create_thread_raw}, create_thread_nopreempt_raw,
                              create_plain, Create{create_thread_from_thread_pool}}) {
    EXPECT_EQ(create(nullptr, nullptr, nullptr), -1);
  }
  EXPECT_EQ(create_thread_raw_base(nullptr, nullptr, nothing, nullptr, nullptr), -1);
  EXPECT_EQ(kesa_thrd_attr_init(nullptr), -1);
  EXPECT_EQ(kesa_thrd_attr_destroy(nullptr), -1);
  EXPECT_EQ(kesa_thrd_setstacksize(nullptr, 1 << 20), -1);
  uint32_t saved;
  kesa_thread_run_in_irq_context_save(&saved);
  EXPECT_EQ(kesa_thread_run_in_irq_context_check(), 1);
  EXPECT_EQ(kesa_thread_run_in_iod_context_check(), 0);
  kesa_thread_run_in_iod_context_init(4);
  EXPECT_EQ(kesa_thread_run_in_iod_context_check(), 1);
  kesa_thrd_clearcurthreadinfo();
  stack_t signal_stack;
  sigaltstack(nullptr, &signal_stack);
  EXPECT_EQ(signal_stack.ss_flags, SS_DISABLE);
}

TEST(ThreadFacts, KernelSideQueries) {
  using enum PrivateCommand;
  KernelSide kernel;
  LogCapture log;
  kernel.replace(kDumpIdleThreadStack,
                 [](uint64_t, uint64_t tid, uint64_t, uint64_t, uint64_t) -> long { return tid == 77 ? 5 : 6; });
  EXPECT_EQ(kesa_thrd_dump_thread_stack_if_not_running(77), 5);
  for (const PrivateCommand command : {kThreadStatus, kDumpCpuStackKernel, kDumpCpuStack}) {
    kernel.failing(command, EPERM);
  }
  EXPECT_EQ(kesa_thrd_getstatus(1), 0);
  EXPECT_EQ(kesa_thrd_dump_cpu_stack_knl(0), 0);
  EXPECT_EQ(kesa_thrd_dump_cpu_stack(0), -1);
  EXPECT_TRUE(log.has(HURN_ERROR, "kesa_thrd_dump_cpu_stack_knl", "Kesa syscall for cur_cpu_thrd_getstatus failed."))
      << log;
  kernel.replace(kDumpCpuStack, [](uint64_t, uint64_t cpu, uint64_t, uint64_t, uint64_t) -> long {
    return *reinterpret_cast<const uint32_t*>(cpu) == 1 ? 0 : -1;
  });
  EXPECT_EQ(kesa_thrd_dump_cpu_stack(1), 0);
}

// Not under emulation: the emulator refuses CPU sets that are shorter than a word, which the kernel accepts.
TEST(ThreadFactsNative, StrategyAndPriority) {
  const int before = nice_value();
  const KesaThreadStrategyCfg row{static_cast<uint32_t>(before + 2), "0-1023"};
  ASSERT_EQ(kesa_initThreadStrategy(0, &row), 0);
  EXPECT_TRUE(run_in_thread(create_plain, [before] {
    EXPECT_EQ(m_current_thread->strategy, -1);
    EXPECT_EQ(nice_value(), before);
  }));
  EXPECT_TRUE(run_in_thread(create_thread_raw, [before] {
    EXPECT_EQ(m_current_thread->strategy, 0);
    EXPECT_EQ(nice_value(), before + 2);
    const int kNice[] = {-20, -15, 0, 10, 15};
    for (uint32_t level = 0; level < 5; ++level) {
      if (kesa_thrd_setprio(level) == 0) {  // only root may lower the value
        EXPECT_EQ(nice_value(), kNice[level]);
      }
    }
  }));
}

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
  static cpu_set_t one{}, all{}, next{};
  EXPECT_EQ(kesa_thrd_getbindcpu(pthread_self(), &all), 0);
  run([] {
    runs_on = pthread_self();
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
    kesa_thread_run_in_iod_context_init(9);
    kesa_thrd_core_set(5);
    setpriority(PRIO_PROCESS, 0, 17);
    EXPECT_EQ(kesa_thrd_setbindcpu(pthread_self(), &one), 0);  // empty: changes nothing
    CPU_SET(static_cast<unsigned>(sched_getcpu()), &one);
    EXPECT_EQ(kesa_thrd_setbindcpu(pthread_self(), &one), 0);
    EXPECT_EQ(kesa_thrd_getbindcpu(pthread_self(), &next), 0);
    EXPECT_TRUE(CPU_EQUAL(&next, &one));
  });
  EXPECT_EQ(given, runs_on);
  run([before] {
    int type = -1;
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
    EXPECT_EQ(type, PTHREAD_CANCEL_DEFERRED);
    EXPECT_EQ(nice_value(), before + 3);
    EXPECT_EQ(kesa_thrd_getbindcpu(pthread_self(), &next), 0);
    EXPECT_TRUE(CPU_EQUAL(&next, &all));
    EXPECT_EQ(kesa_thread_iod_thread_id_get(), 9u);
    EXPECT_EQ(smp_processor_id(), 5);
    EXPECT_TRUE(wait_until([] { return references() == 1; }));
  });
}

// A sleep that a signal interrupts must not change errno either.
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

// A job that is given in a forked child runs in that child, in a new thread or in the child's own pool, even if the
// parent's pool has ended. The emulator leaves its own locks locked in a forked child of a threaded process.
TEST(ThreadFactsNative, PoolOfAForkedChild) {
  TIRN_NEEDS_FORKS();
  ASSERT_GE(kesa_thread_pool_create(4), 1u);
  ASSERT_EQ(kesa_thrd_setcurthreadinfo(), 0);
  for (const bool has_ended : {false, true}) {
    if (has_ended) {
      kesa_thread_pool_destroy();
    }
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
    EXPECT_TRUE(outcome.exited()) << has_ended << outcome;
  }
}
