#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "libtirn/arch/arch.h"
#include "libtirn/jiffies/cycle_rules.h"
#include "support/log_capture.h"
#include "support/private_root.h"
#include "support/wait_until.h"
#include "tirn/jiffies.h"

using namespace tirn::test;

TEST(CycleClock, IsZeroBeforeItsScaleIsSet) {
  EXPECT_EQ(kesa_time_getnanosec(), 0u);
  EXPECT_EQ(kesa_time_getmillisec(), 0u);
  EXPECT_EQ(kesa_time_cycles2ns(1000), 0u);
  EXPECT_NE(kesa_rte_get_timer_cycles(), 0u);  // the raw counter needs no set-up
  EXPECT_EQ(currCpuGHz, 0.0);
  EXPECT_EQ(kesa_gettime_init(), 0);
  EXPECT_EQ(currCpuGHz, 2.6);
  EXPECT_NE(kesa_time_getnanosec(), 0u);
  currCpuGHz = 1.0;
  EXPECT_EQ(kesa_gettime_init(), 0);  // has an effect only once
  EXPECT_EQ(currCpuGHz, 1.0);
}

TEST(CycleClock, AllReadingsHaveOneOriginAndKeepTime) {
  ASSERT_EQ(kesa_gettime_init(), 0);
  const uint64_t scale = kesa_time_cycles2ns(1);
  EXPECT_EQ(scale, 1000000000 / tirn::arch::counter_frequency());
  const uint64_t a = kesa_time_getnanosec();
  const uint64_t b = kesa_time_cycles2ns(kesa_rte_get_timer_cycles());
  const uint64_t c = kesa_time_getnanosec();
  EXPECT_LE(a, b);
  EXPECT_LE(b, c);
  EXPECT_NEAR(static_cast<double>(kesa_time_getmillisec()), static_cast<double>(c) / 1e6, 1000);

  // The span measured by the system's clock contains the inner span of this clock and lies within the outer one,
  // however long the thread loses its processor.
  const auto system_began = std::chrono::steady_clock::now();
  const uint64_t inner_began = kesa_time_getnanosec();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const auto inner_passed = static_cast<double>(kesa_time_getnanosec() - inner_began);
  const std::chrono::duration<double, std::nano> system_passed = std::chrono::steady_clock::now() - system_began;
  const auto outer_passed = static_cast<double>(kesa_time_getnanosec() - c);
  EXPECT_LT(inner_passed, system_passed.count() * 1.02);
  EXPECT_GT(outer_passed, system_passed.count() * 0.98);
}

TEST(CycleClock, FilterTakesTheFirstUndisturbedPair) {
  const std::pair<std::vector<uint64_t>, uint64_t> kCases[] = {
      {{100, 108}, 108}, {{100, 109, 200, 201}, 201}, {{100, 99, 50, 50}, 50}};
  for (const auto& [readings, expected] : kCases) {
    size_t reads = 0;
    EXPECT_EQ(tirn::undisturbed_reading([&] { return readings.at(reads++); }), expected);
    EXPECT_EQ(reads, readings.size()) << expected;
  }
  uint64_t jittery = 0;
  EXPECT_EQ(tirn::undisturbed_reading([&] { return jittery += 9; }), 400u * 9);  // the 200th pair is always taken
}

// If the thread loses its processor between the readings of the two clocks, the estimate is wrong and is repeated.
bool is_as_measured() {
  return std::abs(currCpuGHz - static_cast<double>(tirn::arch::counter_frequency()) / 1e9) < 0.0101;
}

TEST(CycleClock, RatesAreRoundedToTenMegahertz) {
  const std::pair<uint64_t, uint64_t> kCases[] = {
      {104999999, 100000000}, {105000000, 110000000}, {99999999, 100000000}, {4999999, 0}};
  for (const auto& [rate, expected] : kCases) {
    EXPECT_EQ(tirn::round_to_10mhz(rate), expected) << rate;
  }
}

TEST(TscFrequency, ComesFromTheModelNameOrIsMeasured) {
  PrivateRoot root;
  TIRN_NEEDS_PRIVATE_ROOT(root);
  LogCapture log;
  const auto frequency = [&root](const char* cpuinfo) {
    root.write_file("/proc/cpuinfo", cpuinfo);
    return kesa_get_tsc_freq();
  };
  EXPECT_EQ(frequency("flags : tsc constant_tsc\nmodel name : A CPU @ 2.50GHz\nmodel name : A CPU @ 2.50GHz\n"), 0);
  EXPECT_EQ(currCpuGHz, 2.5);
  EXPECT_EQ(frequency("flags : tsc\n"), -1);
  EXPECT_EQ(currCpuGHz, 2.5);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{"There is no constant_tsc flag in /proc/cpuinfo"})) << log;
  EXPECT_EQ(frequency("flags : constant_tsc\nmodel name : A CPU\n"), 0);
  wait_until([] { return is_as_measured() || kesa_get_tsc_freq() != 0; });
  EXPECT_TRUE(is_as_measured());
  char text[64];
  snprintf(text, sizeof text, "cpu standard hz is %f.", currCpuGHz);
  EXPECT_TRUE(log.has(HURN_INFO, "kesa_estimate_tsc_freq", text)) << log;
}
