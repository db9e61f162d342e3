#include <gtest/gtest.h>
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "hurn.h"
#include "support/child_process.h"
#include "support/imports.h"
#include "support/kernel_side.h"
#include "support/log_capture.h"
#include "sync/together.h"
#include "threads/pool_watch.h"
#include "tirn/cpumask.h"
#include "tirn/crc32.h"
#include "tirn/init.h"
#include "tirn/jiffies.h"
#include "tirn/process.h"
#include "tirn/smp.h"

using namespace tirn::test;

static const std::vector<std::string> kStarted = {"Kesa init start.", "Kesa init end ret 0."};

TEST(Init, StartsOnceAndAgainAfterTearDown) {
  have_no_pool_threads();  // and so only the log lines of start-up itself
  LogCapture log;
  EXPECT_EQ(kesa_destory(), 0);
  EXPECT_TRUE(log.texts().empty()) << log;
  EXPECT_EQ(kesa_Init(), 0u);
  EXPECT_EQ(log.texts(), kStarted) << log;
  EXPECT_NE(jiffies_uio_get()->jiffies, nullptr);
  EXPECT_NE(kesa_first_cpu(cpu_online_mask), KESA_CPU_MAX);
  EXPECT_NE(g_onlineCpuNum, 0u);
  EXPECT_NE(g_configCpuNum, 0u);
  EXPECT_EQ(kesa_crc32c("123456789", 9), 0xE3069283u);

  log.clear();
  EXPECT_EQ(kesa_Init(), 0u);
  EXPECT_EQ(kesa_destory(), 0);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{"Kesa destroy start.", "Kesa destroy end."})) << log;
  EXPECT_STREQ(kesa_pid_get_name(381), "TIRN");
  EXPECT_NE(jiffies_uio_get()->jiffies, nullptr);

  log.clear();
  EXPECT_EQ(kesa_Init(), 0u);
  EXPECT_EQ(log.texts(), kStarted) << log;
}

TEST(Init, MissingDeviceIsFatalAndIsTriedAgain) {
  have_no_pool_threads();
  KernelSide kernel;
  LogCapture log;
  kernel.no_jiffies();
  EXPECT_EQ(kesa_Init(), 0xFFFFFFFFu);
  EXPECT_TRUE(log.has(HURN_ERROR, "kesa_Init", "Get jiffies usr addr failed.")) << log;
  EXPECT_EQ(kesa_destory(), 0);
  EXPECT_EQ(log.texts().back(), "Kesa init end ret -1.") << log;
  // The steps after the failed one have not run.
  EXPECT_EQ(g_onlineCpuNum, 0u);

  zut_offer_jiffies(1);
  log.clear();
  EXPECT_EQ(kesa_Init(), 0u);
  EXPECT_EQ(log.texts(), kStarted) << log;
}

// Log lines are written from inside the set-ups of start-up, of the device and of the clock.
TEST(Init, LogCallbackMayCallTheLibrary) {
  KernelSide kernel;
  kernel.no_jiffies();
  static std::atomic<int> lines{0};
  const hurn_content_record record{HURN_CALLBACK_ONLY, [](const hurn_line*) {
                                     kesa_get_jiffies();
                                     kesa_pid_get_name(0);
                                     kesa_destory();
                                     lines += kesa_Init() == 0;
                                   }};
  const auto outcome = run_child([&record] {
    kesa_log_register_callback(&record);
    EXPECT_EQ(kesa_Init(), 0xFFFFFFFFu);
    return lines == 4 ? 0 : 1;
  });
  EXPECT_TRUE(outcome.exited()) << outcome;
}

TEST(Init, ThreadsThatStartTogetherStartOnce) {
  have_no_pool_threads();
  LogCapture log;
  together(8, [](unsigned) {
    EXPECT_EQ(kesa_Init(), 0u);
    EXPECT_NE(jiffies_uio_get()->jiffies, nullptr);
  });
  EXPECT_EQ(log.texts(), kStarted) << log;
}

TEST(ModuleNames, TableIsBuiltOnDemandAndSurvives) {
  EXPECT_STREQ(kesa_pid_get_name(0), "NONE");
  kesa_pid_set_name(5, "FIVE");
  kesa_pid_set_name(5, nullptr);
  kesa_pid_set_name(1024, "beyond");
  EXPECT_EQ(pid_destroy_names(), 0);  // changes nothing once names are built
  EXPECT_STREQ(kesa_pid_get_name(5), "FIVE");
  EXPECT_STREQ(kesa_pid_get_name(1024), "<1024>");
  EXPECT_STREQ(kesa_pid_get_name(0x12345), "<9029>");
}

TEST(LogFacade, ReachesTheLogLibrary) {
  EXPECT_EQ(kesa_log_level_get(381), static_cast<int>(HURN_INFO));
  EXPECT_EQ(kesa_log_level_set(381, HURN_ERROR), 0);
  EXPECT_EQ(hurn_loglevel_get(381), static_cast<int>(HURN_ERROR));
  EXPECT_EQ(kesa_log_level_set(381, 5), -1);
  EXPECT_EQ(kesa_log_init("frame", "nowhere:at all"), -1);
  EXPECT_EQ(kesa_log_init("frame", "stderr"), 0);
  kesa_log_destroy();
  static std::atomic<int> lines{0};
  const hurn_content_record record{HURN_CALLBACK_ONLY, [](const hurn_line*) { ++lines; }};
  EXPECT_EQ(kesa_log_register_callback(&record), 0);
  EXPECT_EQ(kesa_ratelimit_set("no such group", 1, 1), -1);
  EXPECT_EQ(kesa_ratelimit_set(nullptr, 1, 1), -1);
  EXPECT_EQ(kesa_ratelimit_set("42", 2, 60000), 0);
  for (int i = 0; i < 10; ++i) {
    hurn(42, HURN_ERROR, "f", 1, "g", 0, "limited %d", i);
    hurn(43, HURN_ERROR, "f", 1, "g", 0, "free %d", i);
  }
  EXPECT_EQ(lines, 12);
  EXPECT_EQ(kesa_log_register_callback(nullptr), 0);  // ends the callback
  testing::internal::CaptureStderr();
  hurn(43, HURN_ERROR, "f", 1, "g", 0, "to the sink");
  EXPECT_NE(testing::internal::GetCapturedStderr().find("to the sink"), std::string::npos);
  EXPECT_EQ(lines, 12);
}

TEST(Init, MissingAffinityIsNotFatal) {
  LogCapture log;
  Imports imports(Object::library);
  imports.redirect("fopen", [](const char* path, const char* mode) {
    return std::strstr(path, "/status") != nullptr ? nullptr : std::fopen(path, mode);
  });
  EXPECT_EQ(kesa_Init(), 0u);
  EXPECT_TRUE(log.has(HURN_ERROR, "kesa_Init", "Kesa affinity initialize failed.")) << log;
}

TEST(Process, KindsOfMutex) {
  pthread_mutex_t mutex;
  EXPECT_EQ(kesa_mtx_init(&mutex, -1), -1);
  EXPECT_EQ(kesa_mtx_init(&mutex, KESA_MTX_RECURSIVE + 1), -1);
  for (const int kind : {KESA_MTX_NORMAL, KESA_MTX_ERRORCHECK, KESA_MTX_RECURSIVE}) {
    ASSERT_EQ(kesa_mtx_init(&mutex, kind), 0) << kind;
    pthread_mutex_lock(&mutex);
    EXPECT_EQ(pthread_mutex_trylock(&mutex), kind == KESA_MTX_RECURSIVE ? 0 : EBUSY) << kind;
    if (kind == KESA_MTX_ERRORCHECK) {
      EXPECT_EQ(pthread_mutex_lock(&mutex), EDEADLK);
    }
    pthread_mutex_unlock(&mutex);
  }
}

TEST(Process, StampIsTheSameForAllThreads) {
  std::vector<uint64_t> stamps(8);
  together(8, [&stamps](unsigned thread) { stamps[thread] = ps_get_version(); });
  EXPECT_NE(stamps[0], 0u);
  EXPECT_EQ(stamps, std::vector<uint64_t>(8, ps_get_version()));
}

TEST(Process, ClockThatCannotBeReadKeepsTheStampAtZero) {
  LogCapture log;
  {
    Imports imports(Object::library);
    imports.redirect("clock_gettime", [](clockid_t, timespec*) { return errno = EPERM, -1; });
    EXPECT_EQ(ps_get_version(), 0u);
  }
  EXPECT_EQ(ps_get_version(), 0u);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{"Clock_gettime fail ret:-1 errno:1"})) << log;
}
