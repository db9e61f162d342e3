#include "libtirn/base/rate_guard.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "libtirn/base/log.h"
#include "support/kernel_side.h"
#include "support/log_capture.h"
#include "support/random_seed.h"
#include "tirn/jiffies.h"

using namespace tirn::test;

namespace {

constexpr uint64_t kWindow = 15000;
constexpr uint64_t kReportDistance = 150000;

class RateGuardTest : public testing::Test {
 protected:
  static constexpr tirn::LogSite kSite{"file", "site", 42};

  RateGuardTest() { EXPECT_EQ(kesa_get_jiffies(), jiffies_.now()); }

  bool admits() { return guard_.admit(tirn::kInfo, tirn::kInfo, kSite); }

  KernelSide kernel_;
  JiffiesDevice jiffies_{kernel_, 1000000};
  LogCapture log_;
  tirn::RateGuard guard_;
};

// At most three log lines are written in a window, and each of them starts the window anew. The first log line of a
// new window also reports how many were suppressed, unless there was a report shortly before.
TEST_F(RateGuardTest, AgreesWithAModel) {
  std::mt19937 random(random_seed());
  uint64_t written = 0, reported = 0, printed = 0, missed = 0;
  for (int step = 0; step < 5000; ++step) {
    constexpr uint64_t kSteps[] = {0, 0, 0, 0, 1, kWindow - 1, kWindow, 2 * kWindow, kReportDistance};
    const uint64_t till_report = reported + kReportDistance - jiffies_.now();
    jiffies_.advance(random() % 4 == 0 && till_report - 1 < kReportDistance ? till_report - 1
                                                                            : kSteps[random() % std::size(kSteps)]);
    const uint64_t now = jiffies_.now();
    const bool is_new = now - written >= kWindow;
    printed = is_new ? 0 : printed;
    std::vector<std::string> report;
    if (is_new && missed != 0 && now - reported >= kReportDistance) {
      report.push_back("print: " + std::to_string(missed) + " messages suppressed.site,line=42.");
      reported = now;
      missed = 0;
    }
    log_.clear();
    ASSERT_EQ(admits(), printed < 3);
    ASSERT_EQ(log_.texts(), report);
    ++(printed < 3 ? (written = now, printed) : missed);
  }
}

// The machine may have just started, and the jiffies wrap at the end of their 64 bits.
TEST_F(RateGuardTest, FirstLinesAtAnyMoment) {
  for (const uint64_t now : {uint64_t{10}, ~uint64_t{0} - 5}) {
    jiffies_.set(now);
    tirn::RateGuard guard;
    const auto admits = [&] { return guard.admit(tirn::kInfo, tirn::kInfo, kSite); };
    for (const bool expected : {true, true, true, false}) {
      EXPECT_EQ(admits(), expected) << now;
    }
    jiffies_.advance(kWindow - 1);
    EXPECT_FALSE(admits());
    jiffies_.advance(1);
    EXPECT_TRUE(admits());
  }
}

void write_limited(uint32_t first, uint32_t level, uint32_t report) {
  TIRN_LIMITED_WITH(first, report, __func__, level, "limited line");
}

TEST_F(RateGuardTest, ThreeLevelsAreApart) {
  // If the first level is off, nothing is counted. If only the log line's own level is off, it counts as printed.
  const auto write = [](uint32_t module_level, int times, uint32_t first, uint32_t level, uint32_t report) {
    for (hurn_loglevel_set(tirn::kModule, module_level); times > 0; --times) {
      write_limited(first, level, report);
    }
  };
  write(HURN_WARNING, 5, tirn::kInfo, tirn::kError, tirn::kError);
  write(HURN_INFO, 5, tirn::kInfo, tirn::kDebug, tirn::kInfo);
  EXPECT_EQ(log_.lines().size(), 0u) << log_;
  // The report has a level of its own.
  jiffies_.advance(kWindow);
  write(HURN_ERROR, 1, tirn::kError, tirn::kDebug, tirn::kError);
  write(HURN_ERROR, 1, tirn::kError, tirn::kError, tirn::kError);
  EXPECT_TRUE(log_.has(HURN_ERROR, "write_limited", "print: 2 messages suppressed.write_limited,line=*.")) << log_;
  EXPECT_TRUE(log_.has(HURN_ERROR, "write_limited", "limited line")) << log_;
  EXPECT_TRUE(log_.lines().size() == 2 && log_.lines()[0].file == "rate_guard_test") << log_;
}

}  // namespace
