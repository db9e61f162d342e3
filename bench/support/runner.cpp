// Runs a group in a process of its own.
#include "support/runner.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>

#include "support/machine.h"
#include "support/rounds.h"

namespace tirn::bench {
namespace {

// The relative difference that can be resolved: in hot loops of one thread, and between two cores.
constexpr double kResolution = 0.03;
constexpr double kResolutionOfTwo = 0.10;
constexpr uint64_t kTimeForGroup = 12000000000;

// Each group has a process of its own, so that it does not inherit the threads, heap and clocks of the one before.
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

// Returns the results at one placement, without rows if there were too few complete rounds.
GroupResult result_of(const Group& group, const Findings& findings, Placement placement) {
  const double resolution = group.cores == 1 ? kResolution : kResolutionOfTwo;
  GroupResult result{group.name, group.unit, placement, group.target, group.least, resolution};
  const int index = static_cast<int>(placement);
  if (findings.rounds[index] < kLeast) {
    return result;
  }
  const RowNumbers* numbers = findings.rows[index];
  for (const auto& [row, role] : rows_of(group)) {
    result.rows.push_back({row->name, role, *numbers++});
  }
  if (*std::max_element(findings.rounds, std::end(findings.rounds)) < kWanted) {
    result.remark = "fewer than " + std::to_string(kWanted) + " undisturbed rounds: the tries ran out";
  }
  return result;
}

std::string too_few(const Group& group, const Findings& findings) {
  std::string text = "fewer than " + std::to_string(kLeast) + " undisturbed rounds when the tries ran out (";
  text += std::to_string(*std::max_element(findings.rounds, std::end(findings.rounds))) + " of";
  for (size_t row = 0; row < rows_of(group).size(); ++row) {
    text += ' ' + std::to_string(findings.rows[0][row].tried);
  }
  return text + " tries)";
}

}  // namespace

const char* name_of(Role role) {
  constexpr const char* kNames[] = {"ours", "peer", "info"};
  return kNames[static_cast<int>(role)];
}

const RowResult* GroupResult::best_peer() const {
  const RowResult* best = nullptr;
  for (const RowResult& row : rows) {
    if (row.role == Role::peer && (best == nullptr || row.numbers.ratio > best->numbers.ratio)) {
      best = &row;
    }
  }
  return best;
}

double GroupResult::ratio() const {
  const RowResult* const best = best_peer();
  return best == nullptr ? 0 : best->numbers.ratio;
}

std::vector<GroupResult> run(const Group& group) {
  if (cores().size() < group.cores) {
    return {skip(group, "it needs two cores, and this process may use one")};
  }
  void* const memory = mmap(nullptr, sizeof(Findings), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED || rows_of(group).size() > kMostRows) {
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
