// The commands for free memory, and for the table of the bytes that each module holds.
#include <sys/sysinfo.h>

#include <atomic>

#include "commands.h"

namespace zut {
namespace {

constexpr uint32_t kCounters = 1024;

// Page-aligned, because a node shares this table with its kernel in whole pages.
alignas(4096) constinit int64_t counters[kCounters]{};
static_assert(sizeof(counters) == 8192);

}  // namespace

long free_memory(const Call& call) {
  struct sysinfo info;
  if (sysinfo(&info) != 0) {
    return -1;
  }
  return store<uint64_t>(call.a, uint64_t{info.freeram} * info.mem_unit);
}

long counter_table(const Call& call) { return store<int64_t*>(call.a, counters); }

long print_counters(const Call&) {
  for (uint32_t module = 0; module < kCounters; ++module) {
    const int64_t bytes = std::atomic_ref(counters[module]).load(std::memory_order_relaxed);
    if (bytes != 0) {
      ZUT_PRINT("module %u holds %lld bytes", module, static_cast<long long>(bytes));
    }
  }
  return 0;
}

}  // namespace zut
