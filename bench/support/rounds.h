// The measuring itself: rounds, in which each row of a group has one undisturbed repetition, in fresh order.
#ifndef TIRN_BENCH_ROUNDS_H
#define TIRN_BENCH_ROUNDS_H

#include <utility>
#include <vector>

#include "support/runner.h"

namespace tirn::bench {

inline constexpr size_t kWanted = 15;  // rounds, over as many random buffers
inline constexpr size_t kLeast = 9;    // with fewer there is no result
inline constexpr size_t kMostRows = 16;
inline constexpr Placement kPlacements[] = {Placement::none, Placement::near, Placement::far};

// What the measuring process leaves in memory that it shares with the one that reports.
struct Findings {
  char skipped[512];  // the reason, if so
  size_t rounds[3];   // complete ones, by placement
  RowNumbers rows[3][kMostRows];
};

// A group's rows in the order of the table; ours is the first.
std::vector<std::pair<const Row*, Role>> rows_of(const Group& group);

void measure(const Group& group, Findings& findings);

}  // namespace tirn::bench

#endif
