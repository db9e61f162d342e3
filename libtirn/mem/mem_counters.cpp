// Counts the bytes that each module holds, in a table of the kernel side.
#include "libtirn/mem/mem_counters.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>

#include "libtirn/base/bounds.h"
#include "libtirn/base/cancellation.h"
#include "libtirn/base/fork.h"
#include "libtirn/base/private_call.h"
#include "tirn/mem.h"

using namespace tirn;

namespace {

constexpr size_t kTableBytes = TIRN_MODULE_COUNT * sizeof(int64_t);

// Held while a thread looks for the table. No thread waits for this mutex: handlers of the kernel side and of the log
// that the look-up calls may allocate, or wait for a thread that does, so a waiting thread could deadlock.
pthread_mutex_t g_table_mutex = PTHREAD_MUTEX_INITIALIZER;

constinit ForkSteps g_fork_steps([](ForkSteps&) { g_table_mutex = PTHREAD_MUTEX_INITIALIZER; });

// What was counted while the mutex was busy. It is added to the table once that is found: otherwise the table would
// subtract blocks that were never added to it.
constinit std::atomic<int64_t> g_early[TIRN_MODULE_COUNT]{};
constinit std::atomic<bool> g_has_early{false};

void add(int64_t* table, uint32_t id, int64_t bytes) { std::atomic_ref(table[id]).fetch_add(bytes); }

// Moves the early counts into the table. If there is none (NULL), drops them: without a table, nothing is counted.
void settle_early(int64_t* table) {
  if (!g_has_early.exchange(false)) {
    return;
  }
  for (uint32_t id = 0; id < TIRN_MODULE_COUNT; ++id) {
    const int64_t bytes = g_early[id].exchange(0);
    if (table != nullptr) {
      add(table, id, bytes);
    }
  }
}

// Asks the kernel side for the table, or returns the one already found. The caller holds the mutex.
int64_t* ask_for_table() {
  int64_t* table = g_counters.load(std::memory_order_relaxed);
  if (table != nullptr) {
    return table;
  }
  if (private_call(PrivateCommand::kMemoryTable, &table) == 0 && table != nullptr) {
    memset_s(table, kTableBytes, 0, kTableBytes);
    // Pairs with the acquire loads of g_counters: a thread that sees the table sees it cleared. It is sequentially
    // consistent, like the load in count_early(): either that load sees the table, or settle_early() below sees the
    // early count.
    g_counters.store(table);
  } else {
    table = nullptr;
  }
  settle_early(table);
  return table;
}

void count_early(uint32_t id, int64_t bytes) {
  g_early[id].fetch_add(bytes);
  g_has_early.store(true);
  if (int64_t* const table = g_counters.load(); table != nullptr) {
    settle_early(table);
  }
}

}  // namespace

namespace tirn {

constinit std::atomic<int64_t*> g_counters{nullptr};

int64_t* find_counters(bool* is_busy) {
  const NoCancellation guard;  // a cancellation would leave the mutex locked
  const int error = errno;     // restored below, as an allocation without a table is no failure
  g_fork_steps.follow();
  int64_t* table = nullptr;
  *is_busy = pthread_mutex_trylock(&g_table_mutex) != 0;
  if (!*is_busy) {
    table = ask_for_table();
    pthread_mutex_unlock(&g_table_mutex);
  }
  errno = error;
  return table;
}

void count_without_table(uint32_t id, int64_t bytes) {
  bool is_busy = false;
  int64_t* const table = find_counters(&is_busy);
  if (table != nullptr) {
    add(table, id, bytes);
  } else if (is_busy) {
    count_early(id, bytes);
  }
}

}  // namespace tirn

void kesa_mem_stat_add(uint32_t pid, uint32_t size) { count_bytes(pid, size); }

void kesa_mem_stat_sub(uint32_t pid, uint32_t size) { count_bytes(pid, -int64_t{size}); }

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
  bool is_busy = false;
  int64_t* table = g_counters.load(std::memory_order_acquire);
  if (table == nullptr) {
    table = find_counters(&is_busy);
  }
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

int kesa_mem_stat_dump() {
  const NoCancellation guard;
  return static_cast<int>(private_call(PrivateCommand::kMemoryDump));
}
