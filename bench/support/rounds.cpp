// Measures the rows of a group in rounds.
#include "support/rounds.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>

#include "support/data.h"

namespace tirn::bench {
namespace {

constexpr size_t kRounds = 60;
constexpr int kTurns = 6;  // tries of a row in one round
constexpr uint64_t kTimeForGroup = 12000000000;

// Returns the quantile `q` (0 to 1), interpolated between two values. `sorted` is not empty.
constexpr double quantile(const std::vector<double>& sorted, double q) {
  const double position = q * static_cast<double>(sorted.size() - 1);
  const size_t below = static_cast<size_t>(position);
  const size_t above = std::min(below + 1, sorted.size() - 1);
  return sorted[below] + (position - static_cast<double>(below)) * (sorted[above] - sorted[below]);
}
static_assert(quantile({1, 2, 4}, 0.5) == 2 && quantile({1, 2}, 0.5) == 1.5 && quantile({1, 3, 5}, 0.75) == 4);

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return quantile(values, 0.5);
}

// The measurement of one row: how many operations fill a repetition, and the time of one operation in each complete
// round.
struct Course {
  const Row* row;
  uint64_t count = 1;
  size_t tried = 0;
  std::vector<double> kept[3] = {};

  // Fits the count until two undisturbed repetitions in a row are about as long as wanted. One is not enough, since
  // the very first operations may be slow.
  void calibrate(double wanted) {
    count = std::max<uint64_t>(1, row->count);
    for (int tries = 0, fitting = 0; row->count == 0 && fitting < 2 && tries < 100; ++tries) {
      const Sample sample = row->measure(count);
      if (sample.disturbed) {
        continue;
      }
      const double factor = wanted / std::max(sample.nanoseconds, 1.0);
      fitting = factor > 0.5 && factor < 2 ? fitting + 1 : 0;
      count = std::max<uint64_t>(1, std::llround(static_cast<double>(count) * std::clamp(factor, 0.1, 8.0)));
    }
  }

  // Returns an undisturbed repetition or, if there was none, the last one tried.
  Sample take_turn() {
    Sample sample;
    for (int turn = 0; turn < kTurns; ++turn) {
      sample = row->measure(count);
      ++tried;
      if (!sample.disturbed) {
        break;
      }
    }
    sample.nanoseconds /= static_cast<double>(count);
    return sample;
  }
};

RowNumbers numbers_of(const Course& ours, const Course& course, int placement) {
  std::vector<double> sorted = course.kept[placement];
  RowNumbers numbers;
  numbers.tried = course.tried;
  if (sorted.empty()) {
    return numbers;
  }
  std::vector<double> ratios(sorted.size());
  std::transform(ours.kept[placement].begin(), ours.kept[placement].end(), sorted.begin(), ratios.begin(),
                 std::divides());
  std::sort(sorted.begin(), sorted.end());
  numbers.median = quantile(sorted, 0.5);
  numbers.p10 = quantile(sorted, 0.1);
  numbers.p90 = quantile(sorted, 0.9);
  numbers.ratio = median(ratios);
  numbers.kept = sorted.size();
  return numbers;
}

// A round counts only as a whole, so that each ratio is of two repetitions that were close in time.
void take_round(std::vector<Course>& courses) {
  std::vector<size_t> order(courses.size());
  std::iota(order.begin(), order.end(), 0);
  shuffle(order);
  std::vector<Sample> samples(courses.size());
  for (const size_t index : order) {
    samples[index] = courses[index].take_turn();
    if (samples[index].disturbed || samples[index].placement != samples[order[0]].placement) {
      return;
    }
  }
  for (size_t row = 0; row < courses.size(); ++row) {
    courses[row].kept[static_cast<int>(samples[row].placement)].push_back(samples[row].nanoseconds);
  }
}

bool is_complete(const Course& course) {
  return std::any_of(std::begin(course.kept), std::end(course.kept),
                     [](const auto& kept) { return kept.size() >= kWanted; });
}

std::vector<Course> take_rounds(const Group& group) {
  std::vector<Course> courses;
  for (const auto& [row, role] : rows_of(group)) {
    courses.push_back({row});
    courses.back().calibrate(group.repetition * 1e6);
  }
  const uint64_t start = now();
  for (size_t round = 0; round < kRounds && !is_complete(courses[0]) && now() - start < kTimeForGroup; ++round) {
    take_round(courses);
  }
  return courses;
}

}  // namespace

std::vector<std::pair<const Row*, Role>> rows_of(const Group& group) {
  std::vector<std::pair<const Row*, Role>> rows{{&group.ours, Role::ours}};
  for (const Row& row : group.peers) {
    rows.emplace_back(&row, Role::peer);
  }
  for (const Row& row : group.shown) {
    rows.emplace_back(&row, Role::shown);
  }
  return rows;
}

void measure(const Group& group, Findings& findings) {
  const std::string reason = group.set_up ? group.set_up() : "";
  std::snprintf(findings.skipped, sizeof findings.skipped, "%s", reason.c_str());
  if (reason.empty()) {
    const std::vector<Course> courses = take_rounds(group);
    for (const Placement placement : kPlacements) {
      const int index = static_cast<int>(placement);
      findings.rounds[index] = courses[0].kept[index].size();
      for (size_t row = 0; row < courses.size(); ++row) {
        findings.rows[index][row] = numbers_of(courses[0], courses[row], index);
      }
    }
  }
  dismiss_partner();
  if (group.tear_down) {
    group.tear_down();
  }
}

}  // namespace tirn::bench
