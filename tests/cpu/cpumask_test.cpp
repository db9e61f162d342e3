#include "tirn/cpumask.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/imports.h"
#include "support/log_capture.h"
#include "support/private_root.h"
#include "support/temp_folder.h"
#include "tirn/affinity.h"
#include "tirn/smp.h"

using namespace tirn::test;

namespace {

std::vector<uint32_t> cpus_of(const kesa_cpumask* mask) {
  std::vector<uint32_t> cpus;
  for (uint32_t cpu = kesa_first_cpu(mask); cpu < KESA_CPU_MAX; cpu = kesa_next_cpu(cpu, mask)) {
    cpus.push_back(cpu);
  }
  return cpus;
}

using Cpus = std::vector<uint32_t>;

long g_online = 0, g_configured = 0;

// Redirects only the library's calls of sysconf: the sanitizers call it too, at a time when they cannot run the code
// of a test yet.
class CpuCounts : public testing::Test {
 protected:
  CpuCounts() {
    imports_.redirect("sysconf", [](int name) {
      errno = ENOSYS;
      return name == _SC_NPROCESSORS_ONLN ? g_online : name == _SC_NPROCESSORS_CONF ? g_configured : sysconf(name);
    });
  }
  Imports imports_{Object::library};
  LogCapture log_;
};

}  // namespace

TEST(CpuList, FilesOfTheKernelAndOfNobody) {
  LogCapture log;
  const TempFolder folder;
  std::string long_list;
  while (long_list.size() < 254) {
    long_list += "1,";
  }
  const struct {
    std::string text;
    int32_t result;
    Cpus cpus;
  } rows[] = {
      {"0", 0, {0}},
      {"8,0-3,10-11\n", 11, {0, 1, 2, 3, 8, 10, 11}},
      {"\n", 0, {}},
      {"5-3\n", 3, {}},
      {"256,99999999999999999999\n", 2147483647, {}},
      {"250-2147483647\n", 2147483647, {250, 251, 252, 253, 254, 255}},
      {"online\n", 0, {}},
      {"4-\n", 0, {}},
      {"-5\n", 0, {}},
      {long_list + "1234", 1, {1}},  // cut off after 255 bytes
      {"", -1, {}},
      {"1,,2", 2, {1, 2}},
  };
  for (const auto& row : rows) {
    EXPECT_TRUE(log.texts().empty()) << log;
    kesa_cpumask masks[3]{};  // the first and the third must stay empty
    EXPECT_EQ(load_cpumask(&masks[1], folder.write_file("list", row.text).c_str(), 0), row.result) << row.text;
    EXPECT_EQ(cpus_of(&masks[1]), row.cpus) << row.text;
    EXPECT_EQ(cpus_of(&masks[0]), Cpus()) << row.text;
    EXPECT_EQ(cpus_of(&masks[2]), Cpus()) << row.text;
  }
  EXPECT_TRUE(log.has(HURN_ERROR, "kesa_set_cpumask_bit", "sscanf_s failed.ret is -1.")) << log;
}

TEST(CpuMask, IterationEndsAt256) {
  kesa_cpumask mask{};
  EXPECT_EQ(kesa_first_cpu(&mask), 256u);
  kesa_set_cpumask_bit(reinterpret_cast<uint8_t*>(&mask), "255");
  EXPECT_EQ(kesa_next_cpu(255, &mask), 256u);
  EXPECT_EQ(kesa_next_cpu(0xFFFFFFFF, &mask), 256u);
  for (const int32_t words : {0, -4, 3}) {
    init_cpumask_bit(&mask, words);
    EXPECT_EQ(kesa_first_cpu(&mask), 255u);
  }
  init_cpumask_bit(&mask, 4);
  EXPECT_EQ(kesa_first_cpu(&mask), 256u);
}

TEST(CpuMask, ReadsTheThreeListsOnce) {
  PrivateRoot root;
  TIRN_NEEDS_PRIVATE_ROOT(root);
  LogCapture log;
  const std::string base = "/sys/devices/system/cpu/";
  const auto expect = [](int32_t result, size_t possible, size_t online, size_t present) {
    EXPECT_EQ(cpumask_init(), result);
    const auto count = [](const kesa_cpumask* mask) { return cpus_of(mask).size(); };
    EXPECT_EQ(std::tuple(count(cpu_possible_mask), count(cpu_online_mask), count(cpu_present_mask)),
              std::tuple(possible, online, present));
  };
  root.write_file(base + "online", "0-2\n");
  root.write_file(base + "present", "0-3\n");
  root.remove(base + "possible");
  expect(-1, 0, 3, 4);
  EXPECT_EQ(log.count("Load_cpumask failed. possible_cpu = -1, online_cpu = 2, max_cpu=3\n"), 1u) << log;
  root.write_file(base + "possible", "0-4\n");
  root.write_file(base + "online", "1\n");
  expect(0, 5, 1, 4);
  root.write_file(base + "online", "5-6\n");
  expect(0, 5, 1, 4);
}

TEST(Affinity, BindsTheThreadThatIsNamed) {
  Imports imports(Object::library);
  static std::pair<pthread_t, int> bound;
  imports.redirect("pthread_setaffinity_np", [](pthread_t thread, size_t, cpu_set_t* set) {
    bound = {thread, CPU_COUNT(set)};
    return 0;
  });
  CPU_SET(0, &g_affinityLevel_1.cpus);
  std::snprintf(g_affinityLevel_1.affinityLevelName, sizeof g_affinityLevel_1.affinityLevelName, "level");
  std::jthread other([] {});
  EXPECT_EQ(kesa_set_thread_affinity(other.native_handle(), "level"), 0);
  EXPECT_EQ(bound, std::pair(other.native_handle(), 1));
}

TEST_F(CpuCounts, InitIsTriedAgainUntilBothAreKnown) {
  constexpr long kRows[][4] = {{-1, -1, 0, 0}, {0, 4, 0, 4}, {3, -1, 3, 4}, {5, 6, 3, 4}};
  for (const auto& [online, configured, online_then, configured_then] : kRows) {
    g_online = online, g_configured = configured;
    globalCpuNum_init();
    EXPECT_TRUE(g_onlineCpuNum == online_then && g_configCpuNum == configured_then) << online << configured;
  }
  EXPECT_EQ(num_online_cpus(), 3u);
  EXPECT_EQ(num_config_cpus(), 4u);
  EXPECT_EQ(log_.count(HURN_ERROR, "Kesa_smp getting cpu num failed errno=38."), 2u) << log_;
}

TEST_F(CpuCounts, ConfiguredCountIsCheckedAndKept) {
  const std::pair<long, uint32_t> rows[] = {{257, 0}, {0, 0}, {-1, 0}, {256, 256}, {8, 256}};
  for (const auto& [configured, expected] : rows) {
    g_configured = configured;
    EXPECT_EQ(num_config_cpus(), expected) << configured;
  }
  EXPECT_EQ(log_.count(HURN_ERROR, "Kesa_smp getting cpu num failed ret * errno=38."), 3u) << log_;
}
