// Measures tagged allocation on one thread and on two.
#include <atomic>
#include <cstdlib>

#include "support/bench.h"
#include "tirn/mem.h"

namespace tirn::bench {
namespace {

// The module ids for which the two threads allocate. A counter has 8 bytes, so those of 200 and 600 are many cache
// lines apart.
struct Ids {
  const char* name;
  uint32_t of[2];
};
constexpr Ids kSame{"same_id", {200, 200}};
constexpr Ids kNeighbours{"neighbour_ids", {200, 201}};
constexpr Ids kApart{"ids_apart", {200, 600}};

auto tagged(int32_t size, const Ids& ids) {
  return [size, &ids](unsigned thread) {
    void* block = kesa_malloc(ids.of[thread], size);
    benchmark::DoNotOptimize(block);
    kesa_free(block);
  };
}

auto plain(int32_t size) {
  return [size](unsigned) {
    void* block = std::malloc(static_cast<size_t>(size));
    benchmark::DoNotOptimize(block);
    std::free(block);
  };
}

// The least that counting costs: malloc and free with an inlined atomic addition each, to counters that are laid out
// as the library's table is.
alignas(64) std::atomic<int64_t> counts[1024];

auto counted(int32_t size, const Ids& ids) {
  return [size, &ids](unsigned thread) {
    void* block = std::malloc(static_cast<size_t>(size));
    counts[ids.of[thread]].fetch_add(size);
    benchmark::DoNotOptimize(block);
    counts[ids.of[thread]].fetch_sub(size);
    std::free(block);
  };
}
constexpr char kCounted[] = "malloc, free and the two additions, inlined";

template <class Operation>
Measure alone(Operation operation) {
  return one_thread([operation] { operation(0u); });
}

const Family memory{[] {
  std::vector<Group> groups;
  for (const int32_t size : {64, 512, 4096}) {
    groups.push_back({.name = "mem/one_thread/" + std::to_string(size),
                      .target = 1.6,
                      .ours = {"kesa_malloc, kesa_free", alone(tagged(size, kSame))},
                      .peers = {{"malloc, free", alone(plain(size))}},
                      .shown = {{kCounted, alone(counted(size, kSame))}}});
  }
  for (const Ids* const ids : {&kSame, &kNeighbours, &kApart}) {
    for (const int32_t size : {64, 512, 4096}) {
      groups.push_back({.name = std::string("mem/two_threads_") + ids->name + '/' + std::to_string(size),
                        .target = ids == &kApart ? 1.6 : 2.6,
                        .cores = 2,
                        .ours = {"kesa_malloc, kesa_free", two_threads(tagged(size, *ids))},
                        .peers = {{"malloc, free", two_threads(plain(size))}},
                        .shown = {{kCounted, two_threads(counted(size, *ids))}}});
    }
  }
  return groups;
}};

}  // namespace
}  // namespace tirn::bench
