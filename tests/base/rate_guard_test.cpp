#include "libtirn/base/rate_guard.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "libtirn/base/log.h"
#include "support/kernel_side.h"
#include "support/log_capture.h"
#include "tirn/jiffies.h"

using namespace tirn::test;

namespace {

constexpr uint64_t kWindow = 15000;
constexpr uint64_t kReportDistance = 150000;
constexpr char kReport[] = "print: * messages suppressed.*";

class RateGuardTest : public testing::Test {
 protected:
  static constexpr tirn::LogSite kSite{"file", "site", 42};

  RateGuardTest() { EXPECT_EQ(kesa_get_jiffies(), jiffies_.now()); }

  bool admits() { return guard_.admit(tirn::kInfo, tirn::kInfo, kSite); }
  // How many of so many tries, at one moment, are let through.
  int admitted(int tries) {
    int count = 0;
    for (int i = 0; i < tries; ++i) {
      count += admits() ? 1 : 0;
    }
    return count;
  }

  KernelSide kernel_;
  JiffiesDevice jiffies_{kernel_, 1000000};
  LogCapture log_;
  tirn::RateGuard guard_;
};

// A message that is written opens the window anew; one that is suppressed does not.
TEST_F(RateGuardTest, LetsThreeThroughInAWindowThatRestartsAtEach) {
  EXPECT_TRUE(admits());
  jiffies_.advance(kWindow - 1);
  EXPECT_TRUE(admits());
  jiffies_.advance(kWindow - 1);
  EXPECT_EQ(admitted(10), 1);
  jiffies_.advance(kWindow - 1);
  EXPECT_EQ(admitted(10), 0);
  jiffies_.advance(1);
  EXPECT_EQ(admitted(10), 3);
}

TEST_F(RateGuardTest, ReportsWhatWasSuppressedInItsTime) {
  EXPECT_EQ(admitted(10), 3);
  EXPECT_EQ(log_.count("*"), 0u) << log_;
  jiffies_.advance(kWindow);
  EXPECT_EQ(admitted(5), 3);
  EXPECT_TRUE(log_.has(HURN_INFO, "site", "print: 7 messages suppressed.site,line=42.")) << log_;
  ASSERT_EQ(log_.lines().size(), 1u) << log_;
  EXPECT_TRUE(log_.lines()[0].file == "file" && log_.lines()[0].line == 42);

  // The count of a window that ends before a report is due goes on.
  log_.clear();
  const uint64_t reported = jiffies_.now();
  jiffies_.advance(kWindow);
  EXPECT_EQ(admitted(4), 3);
  EXPECT_EQ(log_.count(kReport), 0u) << log_;
  jiffies_.set(reported + kReportDistance - 1);
  EXPECT_EQ(admitted(3), 3);
  EXPECT_EQ(log_.count(kReport), 0u) << log_;
  jiffies_.advance(kWindow);
  EXPECT_EQ(admitted(3), 3);
  EXPECT_EQ(log_.count("print: 3 messages suppressed.site,line=42."), 1u) << log_;
  // Nothing is missing, so nothing is told.
  jiffies_.advance(2 * kReportDistance);
  EXPECT_TRUE(admits());
  EXPECT_EQ(log_.count(kReport), 1u) << log_;
}

// The machine may have just come up, and its jiffies wrap at the end of a 64-bit count.
TEST_F(RateGuardTest, FirstLinesAtAnyMoment) {
  jiffies_.set(10);
  EXPECT_EQ(admitted(10), 3);
  jiffies_.set(~uint64_t{0} - 5);
  tirn::RateGuard late;
  EXPECT_TRUE(late.admit(tirn::kInfo, tirn::kInfo, kSite));
  jiffies_.set(20);
  EXPECT_TRUE(late.admit(tirn::kInfo, tirn::kInfo, kSite));
}

void write_limited(uint32_t first, uint32_t level, uint32_t report) {
  TIRN_LIMITED(first, level, report, "limited line");
}

TEST_F(RateGuardTest, ThreeLevelsAreApart) {
  // The first level is off: nothing is counted.
  hurn_loglevel_set(tirn::kModule, HURN_WARNING);
  for (int i = 0; i < 5; ++i) {
    write_limited(tirn::kInfo, tirn::kError, tirn::kError);
  }
  // The line's own level is off: it counts as printed all the same.
  hurn_loglevel_set(tirn::kModule, HURN_INFO);
  for (int i = 0; i < 5; ++i) {
    write_limited(tirn::kInfo, tirn::kDebug, tirn::kInfo);
  }
  EXPECT_EQ(log_.count("*"), 0u) << log_;
  // The report has a level of its own.
  hurn_loglevel_set(tirn::kModule, HURN_ERROR);
  jiffies_.advance(kWindow);
  write_limited(tirn::kError, tirn::kDebug, tirn::kError);
  write_limited(tirn::kError, tirn::kError, tirn::kError);
  EXPECT_TRUE(log_.has(HURN_ERROR, "write_limited", "print: 2 messages suppressed.write_limited,line=*.")) << log_;
  EXPECT_TRUE(log_.has(HURN_ERROR, "write_limited", "limited line")) << log_;
  EXPECT_EQ(log_.lines().size(), 2u) << log_;
  EXPECT_EQ(log_.lines()[0].file, "rate_guard_test");
}

}  // namespace
