// Counts as sysconf tells them. The library's way to sysconf alone is changed: the sanitizers call it too, before they
// are ready for a test's code.
#include "tirn/smp.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "support/imports.h"
#include "support/log_capture.h"

using namespace tirn::test;

namespace {

long g_online = 0, g_configured = 0;

class CpuCounts : public testing::Test {
 protected:
  CpuCounts() {
    imports_.redirect("sysconf", reinterpret_cast<void*>(+[](int name) {
                        errno = ENOSYS;
                        return name == _SC_NPROCESSORS_ONLN   ? g_online
                               : name == _SC_NPROCESSORS_CONF ? g_configured
                                                              : sysconf(name);
                      }));
  }
  Imports imports_{Object::library};
  LogCapture log_;
};

}  // namespace

TEST_F(CpuCounts, InitIsTriedAgainUntilBothAreKnown) {
  const struct {
    long online, configured;
    uint32_t online_then, configured_then;
  } rows[] = {{-1, -1, 0, 0}, {0, 4, 0, 4}, {3, -1, 3, 4}, {5, 6, 3, 4}};
  for (const auto& row : rows) {
    g_online = row.online, g_configured = row.configured;
    globalCpuNum_init();
    EXPECT_EQ(std::pair(g_onlineCpuNum, g_configCpuNum), std::pair(row.online_then, row.configured_then));
  }
  EXPECT_EQ(std::pair(num_online_cpus(), num_config_cpus()), std::pair(3u, 4u));
  EXPECT_EQ(log_.count(HURN_ERROR, "Kesa_smp getting cpu num failed errno=38."), 2u) << log_;
}

TEST_F(CpuCounts, ConfiguredCountIsCheckedAndKept) {
  const std::pair<long, uint32_t> rows[] = {{257, 0}, {0, 0}, {-1, 0}, {256, 256}, {8, 256}};
  for (const auto& [told, expected] : rows) {
    g_configured = told;
    EXPECT_EQ(num_config_cpus(), expected) << told;
  }
  EXPECT_EQ(log_.count(HURN_ERROR, "Kesa_smp getting cpu num failed ret * errno=38."), 3u) << log_;
}
