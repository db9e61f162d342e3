#include "tirn/sched.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "support/child_process.h"
#include "support/imports.h"
#include "support/kernel_side.h"
#include "support/log_capture.h"
#include "support/printed.h"
#include "support/wait_until.h"
#include "tirn/affinity.h"
#include "tirn/jiffies.h"
#include "tirn/thread.h"

using namespace tirn::test;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

int nice_value() { return getpriority(PRIO_PROCESS, static_cast<id_t>(gettid())); }

bool is_bound_to(int cpu) {
  cpu_set_t set;
  kesa_thrd_getbindcpu(pthread_self(), &set);
  return CPU_COUNT(&set) == 1 && CPU_ISSET(cpu, &set);
}

// Runs the piece in a thread of its own that has a record, because a priority cannot always be raised again.
void in_thread(const std::function<void()>& piece) {
  std::thread([&] {
    kesa_thrd_setcurthreadinfo();
    piece();
    kesa_thrd_clearcurthreadinfo();
  }).join();
}

int32_t strategy_taken() { return kesa_thrd_currentthreadinfo()->strategy; }

milliseconds time_of(const std::function<void()>& piece) {
  const auto start = steady_clock::now();
  piece();
  return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
}

}  // namespace

// Not under emulation: the emulator refuses CPU sets that are shorter than a word, which the kernel accepts.
TEST(ThreadStrategyNative, OneThatIsNotSetUpStandsForTheDefault) {
  const int cpu = sched_getcpu();
  const std::string text = std::to_string(cpu);
  in_thread([] {
    EXPECT_EQ(kesa_setCurThreadStrategy(3), 0);
    EXPECT_EQ(strategy_taken(), -1) << "no strategy is set up yet";
  });
  const KesaThreadStrategyCfg slow{7, text.c_str()}, slower{12, "x"};
  EXPECT_EQ(kesa_initThreadStrategy(0, &slow), 0);
  EXPECT_EQ(kesa_initThreadStrategy(3, &slower), -1);
  EXPECT_EQ(kesa_initThreadStrategy(6, &slow), -1);
  EXPECT_EQ(kesa_setCurThreadBind("none"), -1);
  in_thread([&] {
    EXPECT_EQ(kesa_setCurThreadStrategy(6), 0);
    EXPECT_EQ(strategy_taken(), 0) << "adopted threads take the default one";
    EXPECT_EQ(kesa_setCurThreadStrategy(3), 0);
    EXPECT_EQ(strategy_taken(), 3);
    EXPECT_EQ(nice_value(), 7);
    EXPECT_TRUE(is_bound_to(cpu));
  });
  const std::string table = printed(kesa_showThreadStrategyDbg);
  EXPECT_NE(table.find("Default    0x00000001 7    0x"), std::string::npos) << table;
  EXPECT_NE(table.find("Manage     0x00000000 12   0x0000000000000000 "), std::string::npos) << table;
  EXPECT_EQ(kesa_initThreadStrategy(0, &slower), -1);
  in_thread([] { EXPECT_EQ(strategy_taken(), -1) << "what was valid is not any more"; });
}

TEST(ThreadStrategy, RefusedPriorityLeavesTheBindingAlone) {
  LogCapture log;
  const KesaThreadStrategyCfg cfg{5, "0"};
  ASSERT_EQ(kesa_initThreadStrategy(1, &cfg), 0);
  in_thread([&] {
    const int32_t before = strategy_taken();
    Imports imports(Object::library);
    static int bindings;
    imports.redirect("setpriority", [](int, id_t, int) { return errno = EACCES, -1; });
    imports.redirect("pthread_setaffinity_np", [](pthread_t, size_t, const cpu_set_t*) { return ++bindings, 0; });
    EXPECT_EQ(kesa_setCurThreadStrategy(1), -1);
    EXPECT_EQ(kesa_thrd_setprio(0), -1);
    EXPECT_EQ(bindings, 0);
    EXPECT_EQ(strategy_taken(), before);
  });
  EXPECT_EQ(log.count(HURN_WARNING, "Set thread prio fail *, errno 13."), 2u) << log;
}

TEST(Sched, SleepsLastAndEndAtTheWakeUpSignal) {
  kesa_gettime_init();
  errno = 77;
  EXPECT_GE(time_of([] { kesa_usleep(20000), kesa_10msleep(2), kesa_schedule(); }), milliseconds(41));
  EXPECT_GE(time_of([] { kesa_msleep(1030); }), milliseconds(1030));
  const uint64_t start = kesa_time_getnanosec();
  kesa_mdelay(10);
  EXPECT_GT(kesa_time_getnanosec() - start, 10000000u);
  EXPECT_EQ(errno, 77);
  std::atomic<int> tid{0}, ended{0};
  std::thread sleeper([&] {
    tid = gettid();
    EXPECT_LT(time_of([] { EXPECT_EQ(kesa_msleep(20000), 0); }), milliseconds(15000));
    ended = 1;
  });
  EXPECT_TRUE(wait_until([&] {
    kesa_wake_up_process(static_cast<uint32_t>(tid));
    return ended == 1;
  }));
  sleeper.join();
  ChildProcess other([] { return pause(); });
  EXPECT_EQ(kesa_wake_up_process(static_cast<uint32_t>(other.pid())), ESRCH);
}

TEST(Sched, HandlerThatCannotBeInstalledIsTriedAgain) {
  LogCapture log;
  {
    Imports imports(Object::library);
    imports.redirect("sigaction", [](int, const void*, void*) { return errno = EINVAL, -1; });
    EXPECT_EQ(kesa_sched_init(), -1);
  }
  const std::string text = "signal SIGWAKEUP(" + std::to_string(SIGRTMAX - 4) + ") fail errno(22)";
  EXPECT_EQ(log.count(HURN_ERROR, text), 1u) << log;
  EXPECT_EQ(kesa_wake_up_process(static_cast<uint32_t>(gettid())), 0) << "the signal would kill without its handler";
  struct sigaction installed {};
  sigaction(SIGRTMAX - 4, nullptr, &installed);
  EXPECT_EQ(installed.sa_flags & SA_RESTART, SA_RESTART);
  EXPECT_EQ(kesa_sched_init(), -1) << "the first result is kept";
  EXPECT_EQ(log.count(HURN_ERROR, "sched init fail s_sched_init(-1)"), 2u);
}

TEST(Sched, WaitAsksTheKernelSideAndReturnsTheRest) {
  KernelSide kernel;
  uint32_t word = 1;
  EXPECT_EQ(kesa_wait_comm(&word, 0), 0);
  EXPECT_EQ(kesa_wait_comm(&word, -5), 0);
  EXPECT_EQ(KernelSide::calls(PrivateCommand::kWait), 0u);
  EXPECT_GE(time_of([&] { EXPECT_EQ(kesa_wait_comm(&word, 5), 0); }), milliseconds(20));
  EXPECT_EQ(KernelSide::last_word(PrivateCommand::kWait), 0x17D00000800u);
  word = 0;
  EXPECT_GT(kesa_wait_comm(&word, 250), 0);
  EXPECT_EQ(kesa_wait_interruptible(&word), -1);
  static uint64_t address;
  address = reinterpret_cast<uintptr_t>(&word);
  kernel.replace(PrivateCommand::kWait,
                 [](uint64_t, uint64_t state, uint64_t timeout, uint64_t rest, uint64_t last) -> long {
                   auto& left = *reinterpret_cast<int64_t*>(rest);
                   EXPECT_TRUE(state == address && left == 0 && last == ~uint64_t{0});
                   left = *reinterpret_cast<int64_t*>(timeout);
                   EXPECT_TRUE(left == 77 || left == 250) << left;
                   return -1;
                 });
  EXPECT_EQ(kesa_wait_comm(&word, 77), 77);
  EXPECT_EQ(kesa_wait_interruptible(&word), -1);
  kernel.failing(PrivateCommand::kWait, ENOSYS);
  word = 1;
  EXPECT_EQ(kesa_wait_comm(&word, 250), 0) << "a kernel side without the call looks like a timeout";
}

TEST(Sched, BindsToOneCpuThatIsThere) {
  LogCapture log;
  const int cpu = sched_getcpu();
  in_thread([&] {
    EXPECT_EQ(kesa_sched_setaffinity(static_cast<uint64_t>(cpu)), 0);
    EXPECT_TRUE(is_bound_to(cpu));
    EXPECT_EQ(kesa_sched_setaffinity(static_cast<uint64_t>(sysconf(_SC_NPROCESSORS_CONF))), -1);
    EXPECT_EQ(my_core, cpu);
    EXPECT_EQ(log.count(HURN_ERROR, "cpu num overstep, current only has * cpu"), 1u);
    kesa_set_process_name("50%%");
    EXPECT_STREQ(kesa_thrd_getname(), "50%") << "the name is a format";
  });
}

TEST(Affinity, ListsOfNumbersAndLevelsThatAreNot) {
  char text[] = "1,5,2000,x,-1,-18446744073709551611,7z,,17";
  kesa_affinity_level level{};
  EXPECT_EQ(kesa_parse_affinity_value(text, &level), 0);
  EXPECT_TRUE(CPU_COUNT(&level.cpus) == 3 && CPU_ISSET(1, &level.cpus) && CPU_ISSET(5, &level.cpus) &&
              CPU_ISSET(17, &level.cpus));
  EXPECT_EQ(kesa_affinity_init(), 0);
  EXPECT_EQ(CPU_COUNT(&g_affinityLevel_1.cpus), 0) << "this process has no level";
  EXPECT_EQ(kesa_set_thread_affinity(pthread_self(), "affinity_level_1"), 0);
  EXPECT_EQ(kesa_set_thread_affinity(pthread_self(), nullptr), -1);
  EXPECT_EQ(kesa_get_affinity_entity(""), &g_affinityLevel_1);
  EXPECT_EQ(kesa_parse_affinity_level(nullptr, &level), -1);
  EXPECT_EQ(kesa_parse_affinity_level("x", &level), -1);
  EXPECT_EQ(CPU_COUNT(&level.cpus), 0);
}

TEST(Affinity, MissingLevelIsLookedForOnce) {
  prctl(PR_SET_NAME, "app_data");
  LogCapture log;
  EXPECT_EQ(kesa_affinity_init(), 0);
  const size_t lines = log.lines().size();
  EXPECT_EQ(kesa_affinity_init(), 0);
  EXPECT_TRUE(lines != 0 && log.lines().size() == lines) << log;
}

// The replaced calls give the kernel's configuration to the process, which must be called app_data to read it.
TEST(Affinity, LevelOfTheProcessIsReadFromTheKernelSide) {
  prctl(PR_SET_NAME, "app_data");
  Imports imports(Object::library);
  imports.redirect("open", [](const char*, int) { return dup(0); });
  imports.redirect("ioctl", [](int, unsigned long, const uint64_t* argument) {
    const char* const item = reinterpret_cast<const char*>(argument[2]) + 35;
    auto* const answer = reinterpret_cast<char*>(argument[3]);
    std::snprintf(answer, 33, "%s", item);
    std::snprintf(answer + 33, 257, "0,700");
    return 0;
  });
  EXPECT_EQ(kesa_affinity_init(), 0);
  EXPECT_STREQ(g_affinityLevel_1.affinityLevelName, "affinity_level_1");
  EXPECT_EQ(CPU_COUNT(&g_affinityLevel_1.cpus), 2);
  static cpu_set_t bound;
  static pthread_t bound_thread;
  imports.redirect("pthread_setaffinity_np", [](pthread_t thread, size_t size, const cpu_set_t* set) {
    bound_thread = thread;
    std::memcpy(&bound, set, std::min(size, sizeof bound));
    return 0;
  });
  EXPECT_EQ(kesa_set_thread_affinity(4711, "affinity_level_1"), 0);
  EXPECT_TRUE(CPU_ISSET(0, &bound) && bound_thread == 4711);
}
