// Measures in rounds. In a round each row of a group has one undisturbed repetition; the order is new in each round.
#ifndef TIRN_BENCH_ROUNDS_H
#define TIRN_BENCH_ROUNDS_H

#include <utility>
#include <vector>

#include "support/runner.h"

namespace tirn::bench {

inline constexpr size_t kWanted = 15;  // rounds, and as many random buffers
inline constexpr size_t kLeast = 9;    // rounds; with fewer there is no result
inline constexpr size_t kMostRows = 16;
inline constexpr Placement kPlacements[] = {Placement::none, Placement::near, Placement::far};

// The results of the measuring process, in memory that it shares with the reporting one.
struct Findings {
  char skipped[512];  // the reason if the group was skipped, else empty
  size_t rounds[3];   // complete rounds at each placement
  RowNumbers rows[3][kMostRows];
};

// Returns the rows of a group in the order of the table; ours is the first.
std::vector<std::pair<const Row*, Role>> rows_of(const Group& group);

void measure(const Group& group, Findings& findings);

}  // namespace tirn::bench

#endif
