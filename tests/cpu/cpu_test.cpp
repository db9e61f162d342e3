#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "support/child_process.h"
#include "support/faults.h"
#include "support/kernel_side.h"
#include "support/printed.h"
#include "support/private_root.h"
#include "support/temp_folder.h"
#include "tirn/cpu.h"

using namespace tirn::test;

namespace {

constexpr char kNodes[] = "[NUMA_PARTITION]\ncpu_num=40\nnuma_num=2\nnuma_0=0-3,16\nnuma_1=4-7,1023-1030\n";

struct Mask {
  uint64_t words[16]{};
  int result = 1;
  explicit Mask(const char* text) { result = kesa_cpum_parse_cpumask(text, words); }
  bool is(uint64_t first_word) const { return words[0] == first_word && std::count(words + 1, words + 16, 0) == 15; }
};

}  // namespace

TEST(CpuList, GoodItemsCountBesideBadOnes) {
  LogCapture log;
  EXPECT_EQ(kesa_cpum_init("/nowhere"), -1);
  const Mask mixed("0-3,x,8,3-1,2000");
  EXPECT_EQ(mixed.result, 0);
  EXPECT_TRUE(mixed.is(0x10F));
  EXPECT_EQ(log.texts().size(), 4u) << log;  // two about the file, one about each bad item but the last
  EXPECT_EQ(Mask("1020-2000").words[15], uint64_t{0xF} << 60);
  for (const char* const text : {"3-1", "2000", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(Mask(text).result, -1);
  }
}

TEST(Partitions, AreFoundByNameAndStandInLists) {
  const std::string n30(30, 'n');  // with one more character, a name has its full length
  TempFolder folder;
  const std::string path = folder.write_file("product.ini",
                                             "[CPU_PARTITION]\ngroup_num=4\n"
                                             "[GROUP_0]\npartition_num=5\npartition_0=IOD_NORMAL:2:4-9\n"
                                             "partition_1=two:7\npartition_3=mixed:-3:60,GROUP_3/IOD_NORMAL:x\n"
                                             "partition_4=IOD_NORMAL:2:20-22\n"
                                             "[GROUP_1]\npartition_num=0\n"
                                             "[GROUP_3]\npartition_num=5\npartition_0=IOD_NORMAL:1:12-13\n"
                                             "partition_1=loop:0:1,*/loop,GROUP_3/round\n"
                                             "partition_2=round:0:2,GROUP_3/loop,GROUP_3/loop\n"
                                             "partition_3=" +
                                                 n30 + "a:1:\npartition_4=" + n30 + "b:2:\n");
  EXPECT_EQ(printed(kesa_cpum_dbg_show), "Cpu partition is not inited yet\n");
  LogCapture log;
  ASSERT_EQ(kesa_cpum_init(path.c_str()), 0);
  EXPECT_EQ(log.count(HURN_INFO, "Get cpu partition num fail, GROUP_*"), 2u) << log;
  const std::pair<const char*, uint64_t> rows[] = {
      {"*/IOD_NORMAL", 0x7033F0},
      {"1,GROUP_3/IOD_NORMAL,2", 0x3006},
      {"GROUP_0/mixed", uint64_t{1} << 60},  // the text after the second colon may contain more colons
      {"GROUP_0/none", 0},
      {"GROUP_0/two", 0},
      {"GROUP_3/loop", 6},  // a list that names itself is not read again, and the other items count
  };
  for (const auto& [text, mask] : rows) {
    EXPECT_EQ(Mask(text).result, 0) << text;
    EXPECT_TRUE(Mask(text).is(mask)) << text;
  }
  EXPECT_EQ(Mask("GROUP_0/a_name_that_is_longer_than_any_can_be").result, -1);
  Mask all("0-22");
  EXPECT_EQ(kesa_cpum_clear_cpumask_of_iod_poll(all.words), 0);
  EXPECT_TRUE(all.is(0x4FFFCF));  // cleared: the first two of 4-9 and of 20-22, none of 12-13
  for (const auto& [name, type] : {std::pair{std::string("mixed"), -3}, {n30 + "a", 1}, {n30 + "b", 2}}) {
    const kesa_cpu_partition* const found = kesa_cpum_get_partition(type < 0 ? "GROUP_0" : "GROUP_3", name.c_str());
    ASSERT_NE(found, nullptr) << name;
    EXPECT_EQ(found->type, type);
  }
  EXPECT_EQ(kesa_cpum_get_partition("GROUP_0", "two"), nullptr);
  const std::string table = printed(kesa_cpum_dbg_show);
  EXPECT_NE(table.find("GROUP_3          IOD_NORMAL       1    12-13\n"), std::string::npos) << table;
}

// 300 partitions, each of which names the next one. They are more than can be noted without an allocation, and are
// nested deeper than lists may be.
TEST(Partitions, ManyInARowWithAndWithoutMemory) {
  TempFolder folder;
  std::string text = "[CPU_PARTITION]\ngroup_num=1\n[GROUP_0]\npartition_num=300\n";
  for (int i = 0; i < 300; ++i) {
    const std::string number = std::to_string(i), next = std::to_string(i + 1);
    text += "partition_" + number + "=p" + number + ":0:GROUP_0/p" + next + (i == 299 ? ",5\n" : "\n");
  }
  ASSERT_EQ(kesa_cpum_init(folder.write_file("product.ini", text).c_str()), 0);
  EXPECT_TRUE(Mask("GROUP_0/p180").is(1u << 5));
  EXPECT_EQ(Mask("GROUP_0/p100").result, 0);
  EXPECT_TRUE(Mask("GROUP_0/p100").is(0)) << "the end lies too deep";
  const Faults faults({.kinds = kHeapFaults, .number = 1, .and_later = true});
  EXPECT_EQ(Mask("GROUP_0/p299").result, -1);
  EXPECT_EQ(Mask("GROUP_0/p299,3").result, 0);
}

TEST(Partitions, ScriptMakesTheDefaultFileAndItsAbsenceIsMetOnce) {
  PrivateRoot root;
  TIRN_NEEDS_PRIVATE_ROOT(root);
  LogCapture log;
  root.mkdir("/ZEK");
  const auto init_twice = [] {
    EXPECT_EQ(kesa_cpum_init(nullptr), -1);
    return kesa_cpum_init(nullptr);
  };
  EXPECT_TRUE(run_child(init_twice).exited());
  EXPECT_EQ(log.count(HURN_INFO, "Generate default cpu group cfg ret:*"), 1u) << log;
  EXPECT_EQ(log.count(HURN_INFO, "Invalid cpu group cfg *product.ini"), 1u) << log;
  constexpr char kScript[] = "/ZEK/component/vek/script/gen_product_ini.sh";
  root.bind(std::string(TIRN_SOURCE_DIR) + "/platform/node" + kScript, kScript);
  EXPECT_EQ(kesa_cpum_init(nullptr), 0) << log;
  EXPECT_NE(kesa_cpum_get_partition("GROUP_0", "IOD_NORMAL"), nullptr);
  EXPECT_EQ(Mask("*/ALL").words[0] & 1, 1u);
}

TEST(CpuIdle, AsksTheKernelSide) {
  LogCapture log;
  KernelSide kernel;
  unsigned value = 7;
  EXPECT_EQ(kesa_set_idle_no_cstates(0, 1), 0);
  EXPECT_EQ(kesa_get_idle_no_cstates(0, &value), 0);
  EXPECT_EQ(value, 1u);
  EXPECT_EQ(KernelSide::last_word(PrivateCommand::kGetIdleNoCstates), 0x17D00000305u);
  EXPECT_EQ(kesa_get_idle_no_cstates(0, nullptr), -1);
  EXPECT_EQ(kesa_get_cpu_task_info(0, nullptr), -1);
  kernel.failing(PrivateCommand::kSetIdleNoCstates, EIO);
  kernel.replace(PrivateCommand::kCpuTaskInfo,
                 [](uint64_t, uint64_t, uint64_t, uint64_t, uint64_t) -> long { return 5; });
  EXPECT_EQ(kesa_set_idle_no_cstates(0, 1), -1);
  EXPECT_EQ(kesa_get_cpu_task_info(0, &value), -1);
  EXPECT_EQ(log.count(HURN_ERROR, "Syscall for kesa_set_idle_no_cstates failed."), 1u);
}

TEST(Numa, WithoutAFileThereAreNoNodes) {
  LogCapture log;
  EXPECT_EQ(kesa_numam_init("/nowhere"), 0);
  EXPECT_EQ(kesa_numam_status_set(2), -1);
  EXPECT_EQ(kesa_numam_status_get(), 0u);
  EXPECT_EQ(kesa_numam_num_get(), 0);
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
