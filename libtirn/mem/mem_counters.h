// Counters of the bytes that each module holds, updated by inline code in each allocation.
#ifndef TIRN_MEM_MEM_COUNTERS_H
#define TIRN_MEM_MEM_COUNTERS_H

#include <atomic>
#include <cstdint>

#include "tirn/base.h"

namespace tirn {

// The table of counters, nullptr until it is found.
extern std::atomic<int64_t*> g_counters;

// Returns the table, for which each call asks the kernel side until there is one, or nullptr. Never waits: while
// another thread asks, or this one further up its stack, it returns nullptr and sets `is_busy`.
[[gnu::cold]] int64_t* find_counters(bool* is_busy);

[[gnu::cold, gnu::noinline]] void count_without_table(uint32_t id, int64_t bytes);

// Adds `bytes` to the counter of module `pid`; ids out of range share counter 0. The addition is sequentially
// consistent, so that all threads see a count and what its owner did with the block in the same order.
inline void count_bytes(uint32_t pid, int64_t bytes) {
  const uint32_t id = pid < TIRN_MODULE_COUNT ? pid : 0;
  if (int64_t* const table = g_counters.load(std::memory_order_acquire); table != nullptr) [[likely]] {
    std::atomic_ref(table[id]).fetch_add(bytes);
  } else {
    count_without_table(id, bytes);
  }
}

}  // namespace tirn

#endif
