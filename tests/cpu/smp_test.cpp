// Counts as sysconf tells them. The program's own sysconf stands in for the C library's.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "support/imports.h"
#include "support/log_capture.h"
#include "tirn/smp.h"

namespace {

struct {
  bool replaced = false;
  long online = 0;
  long configured = 0;
} g_answer;

}  // namespace

// The library's way to sysconf alone is changed: the sanitizers call it too, before they are ready for a test's code.
struct Counts {
  Counts() { imports.redirect("sysconf", reinterpret_cast<void*>(answer)); }
  static long answer(int name) {
    if (!g_answer.replaced || (name != _SC_NPROCESSORS_ONLN && name != _SC_NPROCESSORS_CONF)) {
      return sysconf(name);
    }
    const long answer = name == _SC_NPROCESSORS_ONLN ? g_answer.online : g_answer.configured;
    if (answer < 0) {
      errno = ENOSYS;
    }
    return answer;
  }
  tirn::test::Imports imports{tirn::test::Object::library};
};
const Counts g_counts;

using tirn::test::LogCapture;

TEST(CpuCounts, InitIsTriedAgainUntilBothAreKnown) {
  LogCapture log;
  g_answer = {true, -1, -1};
  globalCpuNum_init();
  EXPECT_EQ(g_onlineCpuNum, 0u);
  EXPECT_EQ(g_configCpuNum, 0u);
  EXPECT_TRUE(log.has(HURN_ERROR, "globalCpuNum_init", "Kesa_smp getting cpu num failed errno=38.")) << log;
  g_answer = {true, 3, 4};
  globalCpuNum_init();
  EXPECT_EQ(g_onlineCpuNum, 3u);
  EXPECT_EQ(g_configCpuNum, 4u);
  g_answer = {true, 5, 6};
  globalCpuNum_init();
  EXPECT_EQ(g_onlineCpuNum, 3u);
  EXPECT_EQ(g_configCpuNum, 4u);
  EXPECT_EQ(num_config_cpus(), 4u);
  EXPECT_EQ(num_online_cpus(), 3u);
}

TEST(CpuCounts, ConfiguredCountIsCheckedAndKept) {
  struct Case {
    long told;
    uint32_t expected;
    const char* text;
  };
  const Case cases[] = {
      {257, 0, "Kesa_smp getting cpu num failed ret 257 errno=*."},
      {0, 0, "Kesa_smp getting cpu num failed ret 0 errno=*."},
      {-1, 0, "Kesa_smp getting cpu num failed ret -1 errno=38."},
      {256, 256, nullptr},
      {8, 256, nullptr},  // cached
  };
  for (const Case& c : cases) {
    LogCapture log;
    g_answer = {true, 1, c.told};
    EXPECT_EQ(num_config_cpus(), c.expected) << c.told;
    if (c.text != nullptr) {
      EXPECT_TRUE(log.has(HURN_ERROR, "num_config_cpus", c.text)) << log;
    } else {
      EXPECT_TRUE(log.texts().empty()) << log;
    }
  }
}
