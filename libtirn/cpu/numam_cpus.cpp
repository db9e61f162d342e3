// Returns what was read about the NUMA nodes, and parses their lists of CPUs.
#include <algorithm>

#include "libtirn/base/cpu_list.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/cpu/numam.h"
#include "tirn/bitops.h"
#include "tirn/cpumask.h"

using namespace tirn;
using namespace tirn::cpu;

namespace {

constinit std::atomic<unsigned> g_status{0};

// Calls set(cpu) for each number of an item up to `last`. Numbers go up to 4294967295, so the counter has 64 bits.
template <typename Set>
int set_range(const char* item, unsigned last, Set set) {
  unsigned start = 0;
  unsigned end = 0;
  if (kesa_numam_parse_cpustr(item, &start, &end) != kOk) {
    return kFail;
  }
  for (uint64_t cpu = start; cpu <= std::min(end, last); ++cpu) {
    set(static_cast<unsigned>(cpu));
  }
  return kOk;
}

// Calls parse_item for each item of a list. The first item that is not valid ends the walk.
template <typename Sink>
int parse_list(const char* text, int (*parse_item)(const char*, Sink*), Sink* sink) {
  return walk_items(text, [=](const char* item, const char*) { return parse_item(item, sink) == kOk; }) ? kOk : kFail;
}

// Returns the list of a node's CPUs, or nullptr for an unknown node, which is logged under the name of `function`.
const char* cores_of(int numa_id, const char* function) {
  for (kesa_list_head* link = g_nodes.next; link != &g_nodes; link = link->next) {
    if (node_of(link).numa_id == numa_id) {
      return node_of(link).cores;
    }
  }
  TIRN_ERROR_AS(function, "NumaId(%u) not configured, numa_num(%u).", static_cast<unsigned>(numa_id),
                static_cast<unsigned>(kesa_numam_num_get()));
  return nullptr;
}

}  // namespace

unsigned kesa_numam_status_get() { return g_status.load(std::memory_order_relaxed); }

int kesa_numam_status_set(unsigned status) {
  if (status > 1) {
    return kFail;
  }
  g_status.store(status, std::memory_order_relaxed);
  return kOk;
}

int kesa_numam_num_get() { return g_node_count.load(std::memory_order_relaxed); }

int kesa_numam_proc_numamask_get(uint64_t* mask) {
  if (mask == nullptr) {
    return TIRN_ERROR("Param error, munaMask is NULL."), kFail;
  }
  for (kesa_list_head* link = g_nodes.next; link != &g_nodes; link = link->next) {
    if (const kesa_numa_node& node = node_of(link); node.proc_member == 1) {
      *mask |= uint64_t{1} << (static_cast<unsigned>(node.numa_id) % 64);
    }
  }
  return kOk;
}

int kesa_numam_cpuset_get(int numa_id, cpu_set_t* set) {
  if (set == nullptr) {
    return TIRN_ERROR("Param error, cpuSet is NULL."), kFail;
  }
  CPU_ZERO(set);
  return kesa_numam_parse_cpuset(cores_of(numa_id, __func__), set);
}

int kesa_numam_cpumask_get(int numa_id, uint64_t* mask) {
  if (mask == nullptr) {
    return TIRN_ERROR("Param error, munaMask is NULL."), kFail;
  }
  init_cpumask_bit(mask, KESA_CPUMASK_WORDS);
  return kesa_numam_parse_cpumask(cores_of(numa_id, __func__), mask);
}

int kesa_numam_parse_cpustr(const char* item, unsigned* start, unsigned* end) {
  const RangeScan scan = scan_range(item, *start, *end, __func__);
  if (scan == RangeScan::kNoRange) {
    TIRN_ERROR("Parse CpuSet fail, invalid format:%s", item);
  }
  return scan == RangeScan::kGood ? kOk : kFail;
}

int kesa_numam_parse_cpuset_as_list(const char* item, cpu_set_t* set) {
  return set_range(item, CPU_SETSIZE - 1, [set](unsigned cpu) { CPU_SET(cpu, set); });
}

int kesa_numam_parse_cpuset(const char* text, cpu_set_t* set) {
  const int result = parse_list(text, kesa_numam_parse_cpuset_as_list, set);
  if (result != kOk) {
    TIRN_ERROR("Parse CpuSet %s fail.", text);
  }
  return result;
}

int kesa_numam_parse_cpumask_as_list(const char* item, uint64_t* mask) {
  return set_range(item, UINT32_MAX, [mask](unsigned cpu) { kesa_set_bit(cpu, mask); });
}

int kesa_numam_parse_cpumask(const char* text, uint64_t* mask) {
  const int result = parse_list(text, kesa_numam_parse_cpumask_as_list, mask);
  if (result != kOk) {
    TIRN_ERROR("Parse cpu mask %s fail.", text);
  }
  return result;
}
