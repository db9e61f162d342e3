#include "libtirn/mem/mem_counters.h"

#include <pthread.h>

#include <cerrno>

#include "libtirn/base/bounds.h"
#include "libtirn/base/guard.h"
#include "libtirn/base/private_call.h"
#include "tirn/mem.h"

namespace {

constexpr size_t kTableBytes = TIRN_MODULE_COUNT * sizeof(int64_t);

pthread_mutex_t g_table_mutex = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

namespace tirn {

constinit std::atomic<int64_t*> g_counters{nullptr};

int64_t* find_counters() {
  const int error = errno;  // allocating without a table is no failure
  const MutexLock lock(g_table_mutex);
  int64_t* table = g_counters.load(std::memory_order_relaxed);
  if (table == nullptr) {
    int64_t* answer = nullptr;
    if (private_call(PrivateCommand::kMemoryTable, &answer) == 0 && answer != nullptr) {
      table = answer;
      memset_s(table, kTableBytes, 0, kTableBytes);
      g_counters.store(table, std::memory_order_release);
    }
  }
  errno = error;
  return table;
}

}  // namespace tirn

void kesa_mem_stat_add(uint32_t pid, uint32_t size) { tirn::count_bytes(pid, size); }

void kesa_mem_stat_sub(uint32_t pid, uint32_t size) { tirn::count_bytes(pid, -int64_t{size}); }

void kesa_mem_show(kesa_print_fn print) {
  constexpr int kColumns = 5;
  if (print == nullptr) {
    return;
  }
  print("Begin to show used memory (Bytes) of all PID.\n");
  for (int i = 0; i < kColumns; ++i) {
    print("| %-6s  %11s ", "PID", "UsedMem");
  }
  print("\n");
  long long total = 0;
  int shown = 0;
  int64_t* const table = tirn::counters();
  for (uint32_t pid = 0; table != nullptr && pid < TIRN_MODULE_COUNT; ++pid) {
    const long long used = std::atomic_ref(table[pid]).load(std::memory_order_relaxed);
    if (used == 0) {
      continue;
    }
    print("| %-6u  %11lld ", pid, used);
    total += used;
    if (++shown % kColumns == 0) {
      print("\n");
    }
  }
  print("\nTotal used memory: %lld\n", total);
}

int kesa_mem_stat_dump() { return static_cast<int>(tirn::private_call(tirn::PrivateCommand::kMemoryDump)); }
