// The bytes that each module holds, counted in line with the allocation.
#ifndef TIRN_MEM_MEM_COUNTERS_H
#define TIRN_MEM_MEM_COUNTERS_H

#include <atomic>
#include <cstdint>

#include "tirn/base.h"

namespace tirn {

extern std::atomic<int64_t*> g_counters;

// Asks the kernel side for the table; at each use again until it answers. Nobody waits: nullptr too, with `is_busy`
// set, while someone else asks (or the same thread, further up its stack).
[[gnu::cold]] int64_t* find_counters(bool* is_busy);

[[gnu::cold, gnu::noinline]] void count_without_table(uint32_t id, int64_t bytes);

// Ids out of range share counter 0. Full order, so that a count and what its owner did with the block are seen in one
// order everywhere.
inline void count_bytes(uint32_t pid, int64_t bytes) {
  const uint32_t id = pid < TIRN_MODULE_COUNT ? pid : 0;
  // Acquire: whoever sees the table sees it cleared.
  if (int64_t* const table = g_counters.load(std::memory_order_acquire); table != nullptr) [[likely]] {
    std::atomic_ref(table[id]).fetch_add(bytes);
  } else {
    count_without_table(id, bytes);
  }
}

}  // namespace tirn

#endif
