#include <gtest/gtest.h>

#include <numeric>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/private_root.h"
#include "support/temp_folder.h"
#include "tirn/cpumask.h"

using namespace tirn::test;

namespace {

std::vector<uint32_t> cpus_of(const kesa_cpumask* mask) {
  std::vector<uint32_t> cpus;
  for (uint32_t cpu = kesa_first_cpu(mask); cpu < KESA_CPU_MAX; cpu = kesa_next_cpu(cpu, mask)) {
    cpus.push_back(cpu);
  }
  return cpus;
}

// A mask between two words that must stay as they are.
struct FencedMask {
  uint64_t before = 0x5555555555555555;
  kesa_cpumask mask{};
  uint64_t after = 0x5555555555555555;
  bool is_fenced() const { return before == after && after == 0x5555555555555555; }
};

using Cpus = std::vector<uint32_t>;

}  // namespace

TEST(CpuList, FilesOfTheKernelAndOfNobody) {
  std::string long_list;
  for (int i = 0; i < 100; ++i) {
    long_list += "1,";
  }
  Cpus every_cpu(KESA_CPU_MAX);
  std::iota(every_cpu.begin(), every_cpu.end(), 0u);
  struct Case {
    const char* name;
    std::string text;
    int32_t result;
    Cpus cpus;
    const char* logged;
  };
  const Case cases[] = {
      {"one", "0", 0, {0}, nullptr},
      {"a range and one, with line end", "0-3,8\n", 8, {0, 1, 2, 3, 8}, nullptr},
      {"unordered", "8,10-11,2\n", 11, {2, 8, 10, 11}, nullptr},
      {"empty list", "\n", 0, {}, nullptr},
      {"last CPU", "255\n", 255, {255}, nullptr},
      {"reversed range", "5-3\n", 3, {}, nullptr},
      {"beyond the mask", "254-300\n", 300, {254, 255}, nullptr},
      {"far beyond", "256,2147483647\n", 2147483647, {}, nullptr},
      {"overflow", "99999999999999999999\n", 2147483647, {}, nullptr},
      {"whole of everything", "0-2147483647\n", 2147483647, every_cpu, nullptr},
      {"empty token", "1,,2", 2, {1, 2}, "sscanf_s failed.ret is -1."},
      {"text", "online\n", 0, {}, nullptr},
      {"no upper end", "4-\n", 0, {}, nullptr},
      {"negative", "-5\n", 0, {}, nullptr},
      {"cut at 255 bytes", long_list + long_list.substr(0, 54) + "1234", 1, {1}, nullptr},
  };
  for (const Case& c : cases) {
    LogCapture log;
    TempFolder folder;
    FencedMask fenced;
    const std::string path = folder.write_file("list", c.text);
    EXPECT_EQ(load_cpumask(&fenced.mask, path.c_str(), 0), c.result) << c.name;
    EXPECT_EQ(cpus_of(&fenced.mask), c.cpus) << c.name;
    EXPECT_TRUE(fenced.is_fenced()) << c.name;
    if (c.logged != nullptr) {
      EXPECT_TRUE(log.has(HURN_ERROR, "kesa_set_cpumask_bit", c.logged)) << c.name << log;
    } else {
      EXPECT_TRUE(log.texts().empty()) << c.name << log;
    }
  }
  kesa_cpumask mask{};
  TempFolder folder;
  EXPECT_EQ(load_cpumask(&mask, folder.write_file("empty", "").c_str(), 0), -1);
  EXPECT_EQ(load_cpumask(&mask, folder.path("missing").c_str(), 0), -1);
}

TEST(CpuMask, IterationEndsAt256) {
  kesa_cpumask mask{};
  EXPECT_EQ(kesa_first_cpu(&mask), 256u);
  kesa_set_cpumask_bit(reinterpret_cast<uint8_t*>(&mask), "255");
  EXPECT_EQ(kesa_first_cpu(&mask), 255u);
  EXPECT_EQ(kesa_next_cpu(255, &mask), 256u);
  EXPECT_EQ(kesa_next_cpu(0xFFFFFFFF, &mask), 256u);
  init_cpumask_bit(&mask, 0);
  init_cpumask_bit(&mask, -4);
  init_cpumask_bit(&mask, 3);
  EXPECT_EQ(kesa_first_cpu(&mask), 255u);
  init_cpumask_bit(&mask, 4);
  EXPECT_EQ(kesa_first_cpu(&mask), 256u);
}

TEST(CpuMask, ReadsTheThreeListsOnce) {
  PrivateRoot root;
  TIRN_NEEDS_PRIVATE_ROOT(root);
  LogCapture log;
  const std::string base = "/sys/devices/system/cpu/";
  root.write_file(base + "online", "0-2\n");
  root.write_file(base + "present", "0-3\n");
  root.remove(base + "possible");
  EXPECT_EQ(cpumask_init(), -1);
  EXPECT_TRUE(
      log.has(HURN_ERROR, "cpumask_init", "Load_cpumask failed. possible_cpu = -1, online_cpu = 2, max_cpu=3\n"))
      << log;
  EXPECT_EQ(cpus_of(cpu_online_mask), (Cpus{0, 1, 2}));
  EXPECT_EQ(cpus_of(cpu_present_mask), (Cpus{0, 1, 2, 3}));

  root.write_file(base + "possible", "0-7\n");
  root.write_file(base + "online", "1\n");
  EXPECT_EQ(cpumask_init(), 0);
  EXPECT_EQ(cpus_of(cpu_possible_mask), (Cpus{0, 1, 2, 3, 4, 5, 6, 7}));
  EXPECT_EQ(cpus_of(cpu_online_mask), (Cpus{1}));

  root.write_file(base + "online", "5\n");
  EXPECT_EQ(cpumask_init(), 0);
  EXPECT_EQ(cpus_of(cpu_online_mask), (Cpus{1}));
}
