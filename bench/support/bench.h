// What a benchmark consists of: groups of rows, ours and its peers, measured in turns.
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
  uint64_t count = 0;  // operations of a repetition; 0: as many as fill one
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
  double target = 0;  // the highest ratio of ours to the best peer; 0: for information
  double least = 0;   // and the lowest, where the right ratio is known
  Unit unit = kNanoseconds;
  unsigned cores = 1;                        // measured at once; the group is skipped where there are fewer
  double repetition = 6;                     // ms
  std::function<std::string()> set_up = {};  // gives the reason if the group cannot be measured here
  std::function<void()> tear_down = {};      // called after every set_up
  Row ours;
  std::vector<Row> peers = {};
  std::vector<Row> shown = {};  // beside them, for information
};

// The groups of one file; it is asked for them when all files are there.
struct Family {
  explicit Family(std::vector<Group> (*groups)());
};
std::vector<Group> all_groups();

}  // namespace tirn::bench

#endif
