#include <gtest/gtest.h>

#include <string>

#include "support/log_capture.h"
#include "support/temp_folder.h"
#include "tirn/cpu.h"

using namespace tirn::test;

namespace {

constexpr char kNodes[] = "[NUMA_PARTITION]\ncpu_num=40\nnuma_num=2\nnuma_0=0-3,16\nnuma_1=4-7,1023-1030\n";

kesa_numa_cfg two_files(const std::string& first, const std::string& second) {
  kesa_numa_cfg record{};
  first.copy(record.numa_info, sizeof record.numa_info - 1);
  second.copy(record.node_numa, sizeof record.node_numa - 1);
  return record;
}

}  // namespace

TEST(Numa, WithoutAFileThereAreNoNodes) {
  LogCapture log;
  EXPECT_EQ(kesa_numam_init("/nowhere"), 0);
  EXPECT_EQ(log.count(6, "Numa cfg /nowhere is not access, errno:2"), 1u) << log;
  EXPECT_EQ(kesa_numam_num_get(), 0);
  EXPECT_EQ(kesa_numam_status_set(2), -1);
  EXPECT_EQ(kesa_numam_status_get(), 0u);
  cpu_set_t set;
  EXPECT_EQ(kesa_numam_cpuset_get(7, &set), 0);
  EXPECT_EQ(CPU_COUNT(&set), 0);
  EXPECT_TRUE(log.has(3, "kesa_numam_cpuset_get", "NumaId(7) not configured, numa_num(0)."));
  EXPECT_EQ(kesa_numam_module_init(nullptr), 0) << "the flag is looked at first";
}

TEST(Numa, FailedLoadCanBeTriedAgain) {
  LogCapture log;
  TempFolder folder;
  const std::string path = folder.write_file(
      "numa.ini", kNodes + std::string("[PROC_PARTITION]\nnuma_enable=truth\nproc_numa_info=0,2\n"));
  EXPECT_EQ(kesa_numam_init(path.c_str()), -1);
  EXPECT_TRUE(log.has(3, "kesa_numam_parse_proc_numa_info", "Get proc_numa_info(0,2) failed.")) << log;
  EXPECT_TRUE(log.has(3, "kesa_numam_cfg_parse", "Parse numa cfg PROC_PARTITION fail."));
  folder.write_file("numa.ini", kNodes + std::string("[PROC_PARTITION]\nnuma_enable=0\n"));
  EXPECT_EQ(kesa_numam_init(path.c_str()), -1);
  EXPECT_TRUE(log.has(3, "kesa_numam_parse_proc_numa_switch", "Get proc_numa_info fail, itemValue:0"));
  folder.write_file("numa.ini", kNodes + std::string("[PROC_PARTITION]\nnuma_enable=false\nproc_numa_info=1\n"));
  EXPECT_EQ(kesa_numam_init(path.c_str()), 0);
  EXPECT_EQ(kesa_numam_status_get(), 0u);
  EXPECT_EQ(kesa_numam_num_get(), 2);
  uint64_t nodes = uint64_t{1} << 9;
  EXPECT_EQ(kesa_numam_proc_numamask_get(&nodes), 0);
  EXPECT_EQ(nodes, 0x203u) << "the first load marked node 0, and nothing takes that back";
  cpu_set_t set;
  EXPECT_EQ(kesa_numam_cpuset_get(1, &set), 0);
  EXPECT_EQ(CPU_COUNT(&set), 5) << "numbers from 1024 on are passed over";
  uint64_t mask[20] = {~uint64_t{0}, 0, 0, ~uint64_t{0}, 1};
  EXPECT_EQ(kesa_numam_cpumask_get(1, mask), 0);
  EXPECT_EQ(mask[0], 0xF0u);
  EXPECT_EQ(mask[3], 0u);
  EXPECT_EQ(mask[4], 1u) << "only four words are cleared";
  EXPECT_EQ(mask[16], 0x7Fu) << "the mask holds every number";
}

TEST(Numa, ListsEndAtTheFirstFault) {
  LogCapture log;
  cpu_set_t set;
  CPU_ZERO(&set);
  EXPECT_EQ(kesa_numam_parse_cpuset("0-3,a,5", &set), -1);
  EXPECT_EQ(CPU_COUNT(&set), 4);
  EXPECT_TRUE(log.has(3, "kesa_numam_parse_cpustr", "Parse CpuSet fail, invalid format:a,5")) << log;
  EXPECT_TRUE(log.has(3, "kesa_numam_parse_cpuset", "Parse CpuSet 0-3,a,5 fail."));
  uint64_t mask[2]{};
  EXPECT_EQ(kesa_numam_parse_cpumask("64,9-8", mask), -1);
  EXPECT_EQ(mask[1], 1u);
  EXPECT_EQ(kesa_numam_parse_cpuset(nullptr, &set), 0);
  EXPECT_EQ(kesa_numam_parse_cpuset("4294967290-4294967295", &set), 0) << "the largest range ends";
}

TEST(Numa, TwoFilesShareTheKeys) {
  LogCapture log;
  TempFolder folder;
  const std::string nodes = folder.write_file("nodes.ini", kNodes);
  const std::string process = folder.write_file("process.ini", "[PROC_PARTITION]\nnuma_enable=true\n");
  kesa_numa_cfg record = two_files(nodes, "");
  EXPECT_EQ(kesa_numam_module_init(&record), -1);
  EXPECT_EQ(log.count(3, "Numa cfg node_numa error."), 1u);
  record = two_files(nodes, "/nowhere");
  EXPECT_EQ(kesa_numam_module_init(&record), -1);
  EXPECT_TRUE(log.has(6, "kesa_numam_cfg_init", "Load Numa cfg fail /nowhere")) << log;
  record = two_files(nodes, process);
  EXPECT_EQ(kesa_numam_module_init(&record), 0);
  EXPECT_EQ(kesa_numam_status_get(), 1u);
  EXPECT_EQ(kesa_numam_parse_digit_item("NUMA_PARTITION", "cpu_num"), -1) << "both files were given back";
}
