// Checks the method of measuring with ratios that are known. If one of them misses, the whole run is worthless.
#include <atomic>

#include "peers/peers.h"
#include "support/bench.h"

namespace tirn::bench {
namespace {

constexpr int kSteps = 200;

// A chain of dependent multiplications, which no processor can shorten. Each operation continues from the one before.
template <int kTimes>
void chain() {
  static uint64_t carried = 3;
  uint64_t value = carried;
  for (int i = 0; i < kSteps * kTimes; ++i) {
    value *= 0x9E3779B97F4A7C15;
    benchmark::DoNotOptimize(value);
  }
  carried = value;
}

alignas(64) std::atomic<uint64_t> shared;
alignas(64) std::atomic<uint64_t> apart[16];  // only the first words of two cache lines are used

const Family method{[] {
  return std::vector<Group>{
      {.name = "method/same_work",
       .target = 1.03,
       .least = 0.97,
       .ours = {"200 multiplications", one_thread(chain<1>)},
       .peers = {{"the same", one_thread(chain<1>)}}},
      {.name = "method/twice_the_work",
       .target = 2.1,
       .least = 1.9,
       .ours = {"400 multiplications", one_thread(chain<2>)},
       .peers = {{"200 multiplications", one_thread(chain<1>)}}},
      {.name = "method/two_threads",
       .target = 1.2,
       .least = 0.8,
       .cores = 2,
       .ours = {"fetch_add on one line", two_threads([](unsigned) { shared.fetch_add(1); })},
       .peers = {{"the same", two_threads([](unsigned) { shared.fetch_add(1); })}},
       .shown = {{"fetch_add, each on its own line",
                  two_threads([](unsigned thread) { apart[thread * 8].fetch_add(1); })}}},
  };
}};

}  // namespace
}  // namespace tirn::bench
