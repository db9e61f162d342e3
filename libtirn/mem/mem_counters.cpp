#include "libtirn/mem/mem_counters.h"

#include <pthread.h>

#include <atomic>

#include "libtirn/base/bounds.h"
#include "libtirn/base/guard.h"
#include "libtirn/base/private_call.h"
#include "tirn/mem.h"

namespace {

constexpr size_t kTableBytes = TIRN_MODULE_COUNT * sizeof(int64_t);

constinit std::atomic<int64_t*> g_table{nullptr};
pthread_mutex_t g_table_mutex = PTHREAD_MUTEX_INITIALIZER;

// Asked for again at each use until the kernel side answers.
int64_t* find_table() {
  const tirn::MutexLock lock(g_table_mutex);
  int64_t* table = g_table.load(std::memory_order_relaxed);
  if (table == nullptr && tirn::private_call(tirn::PrivateCommand::memory_table, &table) == 0 && table != nullptr) {
    memset_s(table, kTableBytes, 0, kTableBytes);
    g_table.store(table, std::memory_order_release);  // with counter_of: whoever sees the table sees it cleared
  }
  return table;
}

}  // namespace

namespace tirn {

int64_t* counter_of(uint32_t pid) {
  int64_t* table = g_table.load(std::memory_order_acquire);
  if (table == nullptr) [[unlikely]] {
    table = find_table();
  }
  return table == nullptr ? nullptr : &table[pid < TIRN_MODULE_COUNT ? pid : 0];
}

}  // namespace tirn

// Full order, so that a count and what its owner did with the block are seen in one order everywhere.
void kesa_mem_stat_add(uint32_t pid, uint32_t size) {
  if (int64_t* const counter = tirn::counter_of(pid); counter != nullptr) {
    std::atomic_ref(*counter).fetch_add(size);
  }
}

void kesa_mem_stat_sub(uint32_t pid, uint32_t size) {
  if (int64_t* const counter = tirn::counter_of(pid); counter != nullptr) {
    std::atomic_ref(*counter).fetch_sub(size);
  }
}

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
  for (uint32_t pid = 0; pid < TIRN_MODULE_COUNT; ++pid) {
    int64_t* const counter = tirn::counter_of(pid);
    const long long used = counter == nullptr ? 0 : std::atomic_ref(*counter).load(std::memory_order_relaxed);
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

int kesa_mem_stat_dump() {
  return static_cast<int>(tirn::private_call(tirn::PrivateCommand::memory_dump));
}
