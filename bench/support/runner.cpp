#include "support/runner.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <numeric>

#include "support/data.h"
#include "support/machine.h"

namespace tirn::bench {
namespace {

constexpr size_t kWanted = 15;  // kept repetitions of each row, over as many random buffers
constexpr size_t kLeast = 9;    // without these there is no result
constexpr size_t kRounds = 90;
constexpr uint64_t kTimeForGroup = 12000000000;

// q of 0 to 1 between the order statistics; `sorted` is not empty.
constexpr double quantile(const std::vector<double>& sorted, double q) {
  const double position = q * static_cast<double>(sorted.size() - 1);
  const size_t below = static_cast<size_t>(position);
  const size_t above = std::min(below + 1, sorted.size() - 1);
  return sorted[below] + (position - static_cast<double>(below)) * (sorted[above] - sorted[below]);
}
static_assert(quantile({1, 2, 4}, 0.5) == 2 && quantile({1, 2}, 0.5) == 1.5 && quantile({1, 3, 5}, 0.75) == 4);

constexpr Placement kPlacements[] = {Placement::none, Placement::near, Placement::far};
constexpr size_t kRows = 16;

// What the measuring process leaves in memory that it shares with the one that reports.
struct Findings {
  char skipped[512];          // the reason, if so
  bool complete;              // no tries ran out
  RowNumbers rows[3][kRows];  // by placement; with fewer than kLeast kept there is no result
};

// The measuring of one row: how many operations fill a repetition, and what was found by placement.
struct Course {
  const Row* row;
  Role role;
  uint64_t count = 1;
  size_t tried = 0;
  std::vector<double> kept[3] = {};

  size_t kept_at(Placement placement) const { return kept[static_cast<int>(placement)].size(); }

  // Fits the count until two undisturbed repetitions in a row are about as long as wanted: the first operations of all
  // may be slow ones.
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

  void take_turn() {
    const Sample sample = row->measure(count);
    ++tried;
    if (!sample.disturbed) {
      kept[static_cast<int>(sample.placement)].push_back(sample.nanoseconds / static_cast<double>(count));
    }
  }

  RowNumbers numbers(Placement placement) const {
    std::vector<double> sorted = kept[static_cast<int>(placement)];
    if (sorted.empty()) {
      return {0, 0, 0, 0, tried};
    }
    std::sort(sorted.begin(), sorted.end());
    return {quantile(sorted, 0.5), quantile(sorted, 0.1), quantile(sorted, 0.9), sorted.size(), tried};
  }
};

bool every_row_has(const std::vector<Course>& courses, Placement placement, size_t repetitions) {
  return std::all_of(courses.begin(), courses.end(),
                     [=](const Course& course) { return course.kept_at(placement) >= repetitions; });
}

bool is_complete(const std::vector<Course>& courses) {
  return std::any_of(std::begin(kPlacements), std::end(kPlacements),
                     [&](Placement placement) { return every_row_has(courses, placement, kWanted); });
}

std::vector<Course> courses_of(const Group& group) {
  std::vector<Course> courses{{&group.ours, Role::ours}};
  for (const Row& row : group.peers) {
    courses.push_back({&row, Role::peer});
  }
  for (const Row& row : group.shown) {
    courses.push_back({&row, Role::shown});
  }
  return courses;
}

// False if the rounds or the time ran out first.
bool take_rounds(const Group& group, std::vector<Course>& courses) {
  for (Course& course : courses) {
    course.calibrate(group.repetition * 1e6);
  }
  std::vector<size_t> order(courses.size());
  std::iota(order.begin(), order.end(), 0);
  const uint64_t start = now();
  for (size_t round = 0; round < kRounds && now() - start < kTimeForGroup; ++round) {
    shuffle(order);
    for (const size_t index : order) {
      courses[index].take_turn();
    }
    if (is_complete(courses)) {
      return true;
    }
  }
  return false;
}

void measure(const Group& group, Findings& findings) {
  const std::string reason = group.set_up ? group.set_up() : "";
  if (reason.empty()) {
    std::vector<Course> courses = courses_of(group);
    findings.complete = take_rounds(group, courses);
    for (const Placement placement : kPlacements) {
      for (size_t row = 0; row < courses.size(); ++row) {
        findings.rows[static_cast<int>(placement)][row] = courses[row].numbers(placement);
      }
    }
  } else {
    std::snprintf(findings.skipped, sizeof findings.skipped, "%s", reason.c_str());
  }
  dismiss_partner();
  if (group.tear_down) {
    group.tear_down();
  }
}

// Each group has a process of its own: threads, heap and clocks of the one before would be in its way.
void measure_in_child(const Group& group, Findings& findings) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    measure(group, findings);
    _exit(0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  if (status != 0) {
    std::snprintf(findings.skipped, sizeof findings.skipped, "its process ended with %s %d",
                  WIFSIGNALED(status) ? "signal" : "status", WIFSIGNALED(status) ? WTERMSIG(status) : status >> 8);
  }
}

GroupResult skip(const Group& group, const std::string& reason) {
  GroupResult result{group.name, group.unit};
  result.skipped = reason;
  return result;
}

// The group's rows with what was found at one placement; without rows if that is too little.
GroupResult result_of(const Group& group, const Findings& findings, Placement placement) {
  GroupResult result{group.name, group.unit, placement, group.target, group.least};
  const RowNumbers* numbers = findings.rows[static_cast<int>(placement)];
  for (const Course& course : courses_of(group)) {
    if (numbers->kept < kLeast) {
      result.rows.clear();
      break;
    }
    result.rows.push_back({course.row->name, course.role, *numbers++});
  }
  if (!findings.complete) {
    result.remark = "fewer than " + std::to_string(kWanted) + " undisturbed repetitions: the tries ran out";
  }
  return result;
}

std::string too_few(const Group& group, const Findings& findings) {
  std::string text = "fewer than " + std::to_string(kLeast) + " undisturbed repetitions when the tries ran out (kept";
  for (size_t row = 0; row < courses_of(group).size(); ++row) {
    text += row == 0 ? " " : ", ";
    size_t kept = 0;
    for (const Placement placement : kPlacements) {
      kept = std::max(kept, findings.rows[static_cast<int>(placement)][row].kept);
    }
    text += std::to_string(kept) + " of " + std::to_string(findings.rows[0][row].tried);
  }
  return text + ')';
}

}  // namespace

const char* name_of(Role role) {
  constexpr const char* kNames[] = {"ours", "peer", "info"};
  return kNames[static_cast<int>(role)];
}

const RowResult* GroupResult::best_peer() const {
  const RowResult* best = nullptr;
  for (const RowResult& row : rows) {
    if (row.role == Role::peer && (best == nullptr || row.numbers.median < best->numbers.median)) {
      best = &row;
    }
  }
  return best;
}

double GroupResult::ratio() const {
  const RowResult* const best = best_peer();
  return best == nullptr ? 0 : ours().numbers.median / best->numbers.median;
}

std::vector<GroupResult> run(const Group& group) {
  if (cores().size() < group.cores) {
    return {skip(group, "it needs two cores, and this process may use one")};
  }
  void* const memory = mmap(nullptr, sizeof(Findings), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED || courses_of(group).size() > kRows) {
    return {skip(group, "no memory for so many rows")};
  }
  auto& findings = *static_cast<Findings*>(memory);
  measure_in_child(group, findings);

  std::vector<GroupResult> results;
  if (findings.skipped[0] != 0) {
    results.push_back(skip(group, findings.skipped));
  } else {
    for (const Placement placement : kPlacements) {
      GroupResult result = result_of(group, findings, placement);
      if (!result.rows.empty()) {
        results.push_back(std::move(result));
      }
    }
    if (results.empty()) {
      results.push_back(skip(group, too_few(group, findings)));
    }
  }
  munmap(memory, sizeof(Findings));
  return results;
}

}  // namespace tirn::bench
