// Runs a group and returns its results.
#ifndef TIRN_BENCH_RUNNER_H
#define TIRN_BENCH_RUNNER_H

#include <string>
#include <vector>

#include "support/bench.h"

namespace tirn::bench {

enum class Role { ours, peer, shown };
const char* name_of(Role role);

struct RowNumbers {
  double median = 0, p10 = 0, p90 = 0;  // ns of one operation
  double ratio = 0;                     // our time over this row's, the median of the rounds
  size_t kept = 0, tried = 0;           // repetitions
};

struct RowResult {
  std::string name;
  Role role;
  RowNumbers numbers;
};

// The result of a group at one placement. A placement that was met too seldom has none.
struct GroupResult {
  std::string name;
  Unit unit;
  Placement placement = Placement::none;
  double target = 0, least = 0;
  double resolution = 0;
  std::vector<RowResult> rows = {};
  const RowResult* best_peer() const;
  const RowResult& ours() const { return rows.front(); }
  double ratio() const;  // 0 without peers
  bool has_target() const { return target != 0; }
  bool passes() const { return ratio() <= target && ratio() >= least; }
  // Misses the target by less than two medians of the same operation may differ here.
  bool is_close() const { return !passes() && ratio() <= target * (1 + resolution) && ratio() >= least; }
  std::string remark = {};   // for example that the tries ran out
  std::string skipped = {};  // the reason, if nothing was measured
};

std::vector<GroupResult> run(const Group& group);

}  // namespace tirn::bench

#endif
