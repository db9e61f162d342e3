// Reads the node's CPU partitions, and passes calls about single CPUs to the kernel side.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "libtirn/base/bounds.h"
#include "libtirn/base/guard.h"
#include "libtirn/base/list.h"
#include "libtirn/base/log.h"
#include "libtirn/base/once.h"
#include "libtirn/base/private_call.h"
#include "libtirn/base/result.h"
#include "libtirn/cpu/cfg_value.h"
#include "libtirn/cpu/cpum_groups.h"
#include "tirn/cfg.h"
#include "tirn/fileops.h"
#include "tirn/str.h"

using namespace tirn;
using namespace tirn::cpu;

namespace tirn::cpu {

constinit kesa_list_head g_groups{&g_groups, &g_groups};

}  // namespace tirn::cpu

namespace {

constexpr char kInit[] = "kesa_cpum_init";  // the log lines of the reading name this function
constexpr char kDefaultPath[] = "/ZEK/conf/app_data/wtrc/product.ini";
constexpr char kGenerate[] = "/ZEK/component/vek/script/gen_product_ini.sh \"/ZEK/conf/app_data/wtrc/\"";

constinit Once g_initialised;

// Reads a count. Returns 0 if the item cannot be read. `read_result` receives the result of the reading.
int read_count(const char* path, const char* section, const char* key, int* read_result = nullptr) {
  Value value;
  const int result = read_value(path, section, key, value);
  if (read_result != nullptr) {
    *read_result = result;
  }
  return result == kOk ? static_cast<int>(std::strtol(value.text, nullptr, 10)) : 0;
}

// Adds a partition from the text "name:type:list". Ignores any other text.
void add_partition(kesa_cpu_group& group, const char* value) {
  const char* const type = std::strchr(value, ':');
  const char* const list = type != nullptr ? std::strchr(type + 1, ':') : nullptr;
  if (list == nullptr) {
    return;
  }
  auto partition = tagged_block<kesa_cpu_partition>();
  if (partition == nullptr) {
    return;
  }
  *partition = {};
  partition->type = static_cast<int32_t>(std::strtol(type + 1, nullptr, 10));
  const auto name_length = std::min<size_t>(static_cast<size_t>(type - value), sizeof partition->name - 1);
  strncpy_s(partition->name, sizeof partition->name, value, name_length);
  strncpy_s(partition->cpumask, sizeof partition->cpumask, list + 1, sizeof partition->cpumask - 1);
  list::push_back(&group.partitions, &partition.release()->link);
}

void add_group(const char* path, int number) {
  char section[32];
  snprintf_s(section, sizeof section, sizeof section - 1, "GROUP_%d", number);
  const int count = read_count(path, section, "partition_num");
  if (count <= 0) {
    return TIRN_INFO_AS(kInit, "Get cpu partition num fail, %s", section);
  }
  auto group = tagged_block<kesa_cpu_group>();
  if (group == nullptr) {
    return TIRN_INFO_AS(kInit, "Malloc for group fail");
  }
  *group = {};
  list::init(&group->partitions);
  strcpy_s(group->name, sizeof group->name, section);
  for (int i = 0; i < count; ++i) {
    char key[32];
    snprintf_s(key, sizeof key, sizeof key - 1, "partition_%d", i);
    Value value;
    if (read_value(path, section, key, value) == kOk) {
      add_partition(*group, value.text);
    }
  }
  list::push_back(&g_groups, &group.release()->link);
}

// Makes the default file if it is missing. Returns whether the file exists afterwards.
bool has_default_file() {
  if (kesa_access(kDefaultPath, F_OK) == 0) {
    return true;
  }
  if (const int result = kesa_system_s(kGenerate, nullptr); result != 0) {
    TIRN_LIMITED_AS(kInit, kInfo, "Generate default cpu group cfg ret:%d", result);
  }
  return kesa_access(kDefaultPath, F_OK) == 0;
}

bool has_file(const char* path) {
  if (kesa_access(path, F_OK) == 0) {
    return true;
  }
  TIRN_LIMITED_AS(kInit, kInfo, "Cpu group cfg %s is not exist, errno:%d", path, errno);
  return false;
}

int read_groups(const char* path) {
  int read = kFail;
  const int count = read_count(path, "CPU_PARTITION", "group_num", &read);
  if (count <= 0) {
    TIRN_INFO_AS(kInit, "Get cpu num fail, ret:%d", read);
    return TIRN_INFO_AS(kInit, "Parse cpu group cfg fail %s", path), kFail;
  }
  for (int group = 0; group < count; ++group) {
    add_group(path, group);
  }
  return kOk;
}

int load(const char* given) {
  const char* const path = given != nullptr ? given : kDefaultPath;
  if (given != nullptr ? !has_file(given) : !has_default_file()) {
    TIRN_LIMITED_AS(kInit, kInfo, "Invalid cpu group cfg %s", path);
    return kFail;
  }
  if (kesa_cfg_init(path) != kOk) {
    return TIRN_INFO_AS(kInit, "Load cpu cgroup cfg fail %s", path), kFail;
  }
  return read_groups(path);
}

}  // namespace

int kesa_cpum_init(const char* path) {
  return g_initialised.run([path] { return load(path); }, Once::Done::kAlways);
}

kesa_cpu_partition* kesa_cpum_get_partition(const char* group, const char* partition) {
  kesa_cpu_partition* found = nullptr;
  if (kesa_cpum_init(nullptr) != kOk || group == nullptr || partition == nullptr) {
    return nullptr;
  }
  for_each_partition([&](const kesa_cpu_group& owner, kesa_cpu_partition& candidate) {
    if (found == nullptr && std::strncmp(owner.name, group, sizeof owner.name) == 0 &&
        std::strncmp(candidate.name, partition, sizeof candidate.name) == 0) {
      found = &candidate;
    }
  });
  return found;
}

void kesa_cpum_dbg_show(kesa_print_fn print) {
  if (!g_initialised.is_done()) {
    print("Cpu partition is not inited yet\n");
    return;
  }
  print("%-16s %-16s %-4s %s\n", "Group", "Partition", "Type", "CpuBind");
  for_each_partition([print](const kesa_cpu_group& group, const kesa_cpu_partition& partition) {
    print("%-16s %-16s %-4d %s\n", group.name, partition.name, partition.type, partition.cpumask);
  });
}

int kesa_get_idle_no_cstates(unsigned cpu, unsigned* value) {
  if (value == nullptr) {
    return TIRN_ERROR("idle_no_cstates_value is null."), kFail;
  }
  return static_cast<int>(private_call(PrivateCommand::kGetIdleNoCstates, uint64_t{cpu}, value));
}

int kesa_set_idle_no_cstates(unsigned cpu, unsigned value) {
  const auto result = static_cast<int>(private_call(PrivateCommand::kSetIdleNoCstates, uint64_t{cpu}, &value));
  if (result == kFail) {
    TIRN_ERROR("Syscall for kesa_set_idle_no_cstates failed.");
  }
  return result;
}

int kesa_get_cpu_task_info(unsigned cpu, void* info) {
  if (info == nullptr) {
    return TIRN_ERROR("pCpuTaskInfo is null."), kFail;
  }
  return private_call(PrivateCommand::kCpuTaskInfo, uint64_t{cpu}, info) == 0 ? kOk : kFail;
}
