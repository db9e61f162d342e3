// The parts of a benchmark: groups of rows, one of ours and its peers, which are measured in turns.
//
//   const Family family{[] {
//     return std::vector<Group>{{
//         .name = "crc/512",
//         .target = 1.0,
//         .ours = {"kesa_crc32c", one_thread([] { benchmark::DoNotOptimize(kesa_crc32c(0, data, 512)); })},
//         .peers = {{"crc32_iscsi", one_thread([] { ... })}},
//     }};
//   }};
#ifndef TIRN_BENCH_BENCH_H
#define TIRN_BENCH_BENCH_H

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "support/measure.h"

namespace tirn::bench {

struct Row {
  std::string name;
  Measure measure;
  uint64_t count = 0;  // operations in a repetition; 0: as many as fill its time
};

struct Unit {
  const char* name;
  double nanoseconds;
};
inline constexpr Unit kNanoseconds{"ns", 1};
inline constexpr Unit kMicroseconds{"us", 1000};
inline constexpr Unit kMilliseconds{"ms", 1e6};

struct Group {
  std::string name;
  double target = 0;  // the highest ratio of ours to the best peer; 0: no target
  double least = 0;   // the lowest ratio, if the right one is known
  Unit unit = kNanoseconds;
  unsigned cores = 1;                        // needed at once; the group is skipped if there are fewer
  double repetition = 6;                     // ms
  std::function<std::string()> set_up = {};  // returns the reason if the group cannot be measured here
  std::function<void()> tear_down = {};      // called after each set_up, even if that failed
  Row ours;
  std::vector<Row> peers = {};
  std::vector<Row> shown = {};  // shown for information, without a target
};

// Registers the groups of one source file. `groups` is called by main, when all static objects exist.
struct Family {
  explicit Family(std::vector<Group> (*groups)());
};
std::vector<Group> all_groups();

}  // namespace tirn::bench

#endif
