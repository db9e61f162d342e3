// Reads the NUMA nodes from configuration files.
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "libtirn/base/bounds.h"
#include "libtirn/base/cpu_list.h"
#include "libtirn/base/guard.h"
#include "libtirn/base/list.h"
#include "libtirn/base/log.h"
#include "libtirn/base/once.h"
#include "libtirn/base/result.h"
#include "libtirn/cpu/cfg_value.h"
#include "libtirn/cpu/numam.h"
#include "tirn/cfg.h"
#include "tirn/fileops.h"

using namespace tirn;
using namespace tirn::cpu;

namespace tirn::cpu {

constinit kesa_list_head g_nodes{&g_nodes, &g_nodes};
constinit std::atomic<int32_t> g_node_count{0};

}  // namespace tirn::cpu

namespace {

constexpr char kDefaultPath[] = "/opt/brinemark/QuillonNumaConfiguration.ini";
constexpr char kNodes[] = "NUMA_PARTITION";
constexpr char kProcess[] = "PROC_PARTITION";

constinit std::atomic<int32_t> g_cpu_count{0};
constinit Once g_loaded;

// Reads an item from any registered file. Returns whether it was read.
bool read_value(const char* section, const char* key, Value& value) {
  return cpu::read_value(nullptr, section, key, value) == kOk;
}

// Registers a file. Failures are logged under the name of the exported `function`.
bool load_file(const char* path, const char* function) {
  if (kesa_cfg_init(path) != kOk) {
    return TIRN_INFO_AS(function, "Load Numa cfg fail %s", path), false;
  }
  return true;
}

void forget_file(const char* path, const char* function) {
  if (kesa_cfg_destroy_ex(path) != kOk) {
    TIRN_ERROR_AS(function, "Destroy numa cfg fail %s", path);
  }
}

bool is_path(const char (&path)[256]) {
  const size_t length = strnlen(path, sizeof path);
  return length >= 1 && length < sizeof path;
}

}  // namespace

int kesa_numam_parse_digit_item(const char* section, const char* item) {
  Value value;
  return read_value(section, item, value) ? static_cast<int>(std::strtol(value.text, nullptr, 10)) : kFail;
}

int kesa_numam_parse_per_numa(int numa_id) {
  char key[32];
  snprintf_s(key, sizeof key, sizeof key - 1, "numa_%d", numa_id);
  Value value;
  if (!read_value(kNodes, key, value)) {
    return kFail;
  }
  auto node = tagged_block<kesa_numa_node>();
  if (node == nullptr) {
    return TIRN_ERROR("Malloc for numaInfo fail"), kFail;
  }
  *node = {};
  node->numa_id = numa_id;
  strncpy_s(node->cores, sizeof node->cores, value.text, sizeof node->cores - 1);
  list::push_back(&g_nodes, &node.release()->link);
  return TIRN_INFO("Get cores(%s) by numaId(%u) success.", value.text, static_cast<unsigned>(numa_id)), kOk;
}

int kesa_numam_parse_numa_partition() {
  const int cpus = kesa_numam_parse_digit_item(kNodes, "cpu_num");
  g_cpu_count.store(cpus, std::memory_order_relaxed);
  if (cpus < 1) {
    return TIRN_ERROR("Get cpu num fail, ret:%d", cpus), kFail;
  }
  const int nodes = kesa_numam_parse_digit_item(kNodes, "numa_num");
  g_node_count.store(nodes, std::memory_order_relaxed);
  if (nodes < 1) {
    return TIRN_ERROR("Get numa num fail, ret:%d", nodes), kFail;
  }
  for (int id = 0; id < nodes; ++id) {
    if (kesa_numam_parse_per_numa(id) != kOk) {
      return kFail;
    }
  }
  return TIRN_INFO("Get cpu_num(%u), numa_num(%d) success.", static_cast<unsigned>(cpus), nodes), kOk;
}

// The comparisons stop after 3 and 4 characters on purpose: "truth" counts as "true".
int kesa_numam_parse_proc_numa_switch() {
  Value value;
  if (!read_value(kProcess, "numa_enable", value)) {
    return kFail;
  }
  const bool is_on = std::strncmp(value.text, "true", 3) == 0;
  if (!is_on && std::strncmp(value.text, "false", 4) != 0) {
    return TIRN_ERROR("Get proc_numa_info fail, itemValue:%s", value.text), kFail;
  }
  kesa_numam_status_set(is_on ? 1 : 0);
  return TIRN_INFO("Get numa_enable(%s) success.", value.text), kOk;
}

void kesa_numam_parse_proc_numa_set(int numa_id) {
  for (kesa_list_head* link = g_nodes.next; link != &g_nodes; link = link->next) {
    if (node_of(link).numa_id == numa_id) {
      node_of(link).proc_member = 1;
    }
  }
}

int kesa_numam_parse_proc_numa_info() {
  Value value;
  if (!read_value(kProcess, "proc_numa_info", value)) {
    return kOk;
  }
  const bool are_nodes = walk_items(value.text, [](const char* item, const char*) {
    const int id = static_cast<int>(std::strtol(item, nullptr, 10));
    if (static_cast<unsigned>(id) >= static_cast<unsigned>(kesa_numam_num_get())) {
      return false;
    }
    kesa_numam_parse_proc_numa_set(id);
    return true;
  });
  if (!are_nodes) {
    return TIRN_ERROR("Get proc_numa_info(%s) failed.", value.text), kFail;
  }
  return TIRN_INFO("Get proc_numa_info(%s) success.", value.text), kOk;
}

int kesa_numam_parse_proc_partition() {
  return kesa_numam_parse_proc_numa_switch() == kOk ? kesa_numam_parse_proc_numa_info() : kFail;
}

// The first log text names a section that no file has.
int kesa_numam_cfg_parse() {
  if (kesa_numam_parse_numa_partition() != kOk) {
    return TIRN_ERROR("Parse numa cfg CPU_PARTITION fail."), kFail;
  }
  if (kesa_numam_parse_proc_partition() != kOk) {
    return TIRN_ERROR("Parse numa cfg PROC_PARTITION fail."), kFail;
  }
  return kOk;
}

int kesa_numam_init_inner(const char* path) {
  const NoCancellation guard;  // a cancelled thread would leave the file registered
  const char* const file = path != nullptr ? path : kDefaultPath;
  if (kesa_access(file, F_OK) != 0) {
    TIRN_LIMITED(kInfo, "Numa cfg %s is not access, errno:%d", file, errno);
    return kOk;
  }
  TIRN_LIMITED(kInfo, "Numa cfg %s.", file);
  if (!load_file(file, __func__) || kesa_numam_cfg_parse() != kOk) {
    return kFail;
  }
  forget_file(file, __func__);
  return kOk;
}

int kesa_numam_init(const char* path) {
  return g_loaded.run([path] { return kesa_numam_init_inner(path); });
}

int kesa_numam_cfg_check(const kesa_numa_cfg* record) {
  if (record == nullptr) {
    return TIRN_ERROR("Numa cfg is NULL."), kFail;
  }
  if (!is_path(record->numa_info)) {
    return TIRN_ERROR("Numa cfg numa_info error."), kFail;
  }
  if (!is_path(record->node_numa)) {
    return TIRN_ERROR("Numa cfg node_numa error."), kFail;
  }
  return kOk;
}

int kesa_numam_cfg_init(const kesa_numa_cfg* record) {
  const NoCancellation guard;  // a cancelled thread would leave the files registered
  if (kesa_numam_cfg_check(record) != kOk || !load_file(record->numa_info, __func__)) {
    return kFail;
  }
  int result = kFail;
  if (load_file(record->node_numa, __func__)) {
    result = kesa_numam_cfg_parse();
    forget_file(record->node_numa, __func__);
  }
  forget_file(record->numa_info, __func__);
  return result;
}

int kesa_numam_module_init(const kesa_numa_cfg* record) {
  return g_loaded.run([record] { return kesa_numam_cfg_init(record); });
}
