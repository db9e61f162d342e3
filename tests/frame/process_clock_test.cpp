// A process whose clock cannot be read. The program's own clock_gettime stands in for the C library's.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <time.h>

#include <cerrno>

#include "support/log_capture.h"
#include "tirn/process.h"

namespace {
bool g_raw_clock_fails = false;
}

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  static const auto real = reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, "clock_gettime"));
  if (g_raw_clock_fails && clock == CLOCK_MONOTONIC_RAW) {
    errno = EPERM;
    return -1;
  }
  return real(clock, now);
}

TEST(ProcessClock, FailureKeepsTheStampAtZeroForGood) {
  tirn::test::LogCapture log;
  g_raw_clock_fails = true;
  EXPECT_EQ(ps_get_version(), 0u);
  EXPECT_TRUE(log.has(HURN_INFO, "ps_get_version", "Clock_gettime fail ret:-1 errno:1")) << log;
  g_raw_clock_fails = false;
  EXPECT_EQ(ps_get_version(), 0u);
  EXPECT_EQ(log.texts().size(), 1u) << log;
}
