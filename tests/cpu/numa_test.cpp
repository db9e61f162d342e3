#include <gtest/gtest.h>

#include <string>

#include "support/log_capture.h"
#include "support/temp_folder.h"
#include "tirn/cpu.h"

using namespace tirn::test;

namespace {

constexpr char kNodes[] = "[NUMA_PARTITION]\ncpu_num=40\nnuma_num=2\nnuma_0=0-3,16\nnuma_1=4-7,1023-1030\n";

}  // namespace

TEST(Numa, WithoutAFileThereAreNoNodes) {
  LogCapture log;
  EXPECT_EQ(kesa_numam_init("/nowhere"), 0);
  EXPECT_EQ(log.count(HURN_INFO, "Numa cfg /nowhere is not access, errno:2"), 1u) << log;
  EXPECT_EQ(kesa_numam_num_get(), 0);
  EXPECT_EQ(kesa_numam_status_set(2), -1);
  EXPECT_EQ(kesa_numam_status_get(), 0u);
  cpu_set_t set;
  EXPECT_EQ(kesa_numam_cpuset_get(7, &set), 0);
  EXPECT_EQ(CPU_COUNT(&set), 0);
  EXPECT_EQ(log.count(HURN_ERROR, "NumaId(7) not configured, numa_num(0)."), 1u) << log;
  EXPECT_EQ(kesa_numam_module_init(nullptr), 0) << "the flag is looked at first";
}

TEST(Numa, FailedLoadCanBeTriedAgain) {
  LogCapture log;
  TempFolder folder;
  const auto load = [&](const std::string& text) { return kesa_numam_init(folder.write_file("a", text).c_str()); };
  EXPECT_EQ(load("[NUMA_PARTITION]\ncpu_num=40\nnuma_num=0\n[PROC_PARTITION]\nnuma_enable=true\n"), -1);
  EXPECT_EQ(load(kNodes + std::string("[PROC_PARTITION]\nnuma_enable=truth\nproc_numa_info=0,2\n")), -1);
  EXPECT_EQ(log.count(HURN_ERROR, "Get proc_numa_info(0,2) failed."), 1u) << log;
  EXPECT_EQ(load(kNodes + std::string("[PROC_PARTITION]\nnuma_enable=0\n")), -1);
  EXPECT_EQ(log.count(HURN_ERROR, "Get proc_numa_info fail, itemValue:0"), 1u) << log;
  EXPECT_EQ(load(kNodes + std::string("[PROC_PARTITION]\nnuma_enable=false\nproc_numa_info=1\n")), 0);
  EXPECT_EQ(kesa_numam_status_get(), 0u);
  EXPECT_EQ(kesa_numam_num_get(), 2);
  uint64_t nodes = uint64_t{1} << 9;
  EXPECT_EQ(kesa_numam_proc_numamask_get(&nodes), 0);
  EXPECT_EQ(nodes, 0x203u) << "an earlier load marked node 0, and nothing takes that back";
  cpu_set_t set;
  EXPECT_EQ(kesa_numam_cpuset_get(1, &set), 0);
  EXPECT_EQ(CPU_COUNT(&set), 5) << "numbers from 1024 on are passed over";
  uint64_t mask[20] = {~uint64_t{0}, 0, 0, ~uint64_t{0}, 1};
  EXPECT_EQ(kesa_numam_cpumask_get(1, mask), 0);
  EXPECT_EQ(std::pair(mask[0], mask[3]), std::pair(uint64_t{0xF0}, uint64_t{0}));
  EXPECT_EQ(mask[4], 1u) << "only four words are cleared";
  EXPECT_EQ(mask[16], 0x7Fu) << "the mask holds every number";
}

TEST(Numa, ListsEndAtTheFirstFault) {
  LogCapture log;
  cpu_set_t set;
  CPU_ZERO(&set);
  EXPECT_EQ(kesa_numam_parse_cpuset("0-3,a,5", &set), -1);
  EXPECT_EQ(CPU_COUNT(&set), 4);
  EXPECT_EQ(log.count(HURN_ERROR, "Parse CpuSet fail, invalid format:a,5"), 1u) << log;
  uint64_t mask[2]{};
  EXPECT_EQ(kesa_numam_parse_cpumask("64,9-8", mask), -1);
  EXPECT_EQ(mask[1], 1u);
  EXPECT_EQ(kesa_numam_parse_cpuset(nullptr, &set), 0);
  EXPECT_EQ(kesa_numam_parse_cpuset("4294967290-4294967295", &set), 0) << "the largest range ends";
}

TEST(Numa, TwoFilesShareTheKeys) {
  TempFolder folder;
  const std::string nodes = folder.write_file("nodes.ini", kNodes);
  const std::string process = folder.write_file("process.ini", "[PROC_PARTITION]\nnuma_enable=true\n");
  kesa_numa_cfg record;
  for (const std::string& second : {std::string(), std::string(256, 'x'), std::string("/nowhere"), process}) {
    record = {};
    nodes.copy(record.numa_info, sizeof record.numa_info - 1);
    second.copy(record.node_numa, sizeof record.node_numa);
    LogCapture log;
    EXPECT_EQ(kesa_numam_module_init(&record), second == process ? 0 : -1) << second;
    EXPECT_EQ(log.count("Numa cfg node_numa error."), second.size() % 256 == 0 ? 1u : 0u) << log;
  }
  EXPECT_EQ(kesa_numam_status_get(), 1u);
  for (const auto& [section, item] : {std::pair{"NUMA_PARTITION", "cpu_num"}, {"PROC_PARTITION", "numa_enable"}}) {
    EXPECT_EQ(kesa_numam_parse_digit_item(section, item), -1) << "both files were given back";
  }
}
