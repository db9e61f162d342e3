// The bytes that each module holds, counted in line with the allocation.
#ifndef TIRN_MEM_MEM_COUNTERS_H
#define TIRN_MEM_MEM_COUNTERS_H

#include <atomic>
#include <cstdint>

#include "tirn/base.h"

namespace tirn {

extern std::atomic<int64_t*> g_counters;

// Asks the kernel side for the table; at each use again until it answers.
[[gnu::cold]] int64_t* find_counters();

// All counters, or nullptr while the kernel side offers none. Acquire: whoever sees the table sees it cleared.
inline int64_t* counters() {
  int64_t* const table = g_counters.load(std::memory_order_acquire);
  return table != nullptr ? table : find_counters();
}

// Ids out of range share counter 0. Full order, so that a count and what its owner did with the block are seen in one
// order everywhere.
inline void count_bytes(uint32_t pid, int64_t bytes) {
  if (int64_t* const table = counters(); table != nullptr) [[likely]] {
    std::atomic_ref(table[pid < TIRN_MODULE_COUNT ? pid : 0]).fetch_add(bytes);
  }
}

}  // namespace tirn

#endif
