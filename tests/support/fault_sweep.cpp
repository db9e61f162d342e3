#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <thread>

#include "child_process.h"
#include "faults.h"
#include "thread_end.h"
#include "tirn/thread.h"
#include "wait_until.h"

namespace tirn::test {
namespace {

// What a child leaves for its parent in shared memory, however the child ends.
struct Report {
  uint32_t calls;
  Fault fault;
};

std::map<int, std::string> open_descriptors() {
  std::map<int, std::string> open;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;
    const std::string name = std::filesystem::read_symlink(entry.path(), ignored);
    if (!name.ends_with("/fd")) {  // the descriptor of the walk itself
      open[std::stoi(entry.path().filename())] = name;
    }
  }
  return open;
}

void expect_descriptors(const std::map<int, std::string>& before, int kept) {
  const auto after = open_descriptors();
  std::ostringstream names;
  for (const auto& [fd, name] : after) {
    if (before.count(fd) == 0) {
      names << ' ' << fd << " (" << name << ')';
    }
  }
  EXPECT_LE(after.size(), before.size() + static_cast<size_t>(kept)) << "leaked descriptors:" << names.str();
  EXPECT_GE(after.size(), before.size()) << "descriptors closed that were another's";
}

void* run_scenario(void* argument) {
  const auto& scenario = *static_cast<const Scenario*>(argument);
  long result = 0;
  pthread_cleanup_push([](void*) { leave_frames(); }, nullptr);
  result = scenario.run();
  pthread_cleanup_pop(0);
  return reinterpret_cast<void*>(result);
}

long run_on_a_thread(const Scenario& scenario) {
  pthread_t thread;
  void* result = nullptr;
  EXPECT_EQ(pthread_create(&thread, nullptr, run_scenario, const_cast<Scenario*>(&scenario)), 0);
  pthread_join(thread, &result);
  return reinterpret_cast<long>(result);
}

// Returns the first free slot of the thread table. A lost reference to a slot moves it.
const ThreadSlot* first_free_slot() {
  const ThreadSlot* slot = nullptr;
  std::thread([&slot] {
    EXPECT_EQ(kesa_thrd_setcurthreadinfo(), 0);
    slot = m_current_thread->slot;
    EXPECT_EQ(kesa_thrd_clearcurthreadinfo(), 0);
  }).join();
  return slot;
}

// Runs the scenario again after a cancellation. If a lock was left locked, this run hangs, and the child times out.
void expect_nothing_lost(const Scenario& scenario, const ThreadSlot* slot_before) {
  run_on_a_thread(scenario);
  scenario.clean_up();
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was left";
  // Threads that the scenario started may not have ended yet.
  EXPECT_TRUE(wait_until([&] { return first_free_slot() <= slot_before + scenario.threads_kept; }))
      << "a slot of the thread table was lost";
}

int run_with_fault(const Scenario& scenario, uint32_t number, Report& report) {
  const LogCapture log;
  scenario.prepare();
  const bool cancels = scenario.kinds == kCancellations;
  const ThreadSlot* const slot = cancels ? first_free_slot() : nullptr;
  const auto descriptors = open_descriptors();
  Faults faults({.kinds = scenario.kinds, .number = number, .object = scenario.object});
  report.fault.number = number;
  const long result = cancels ? run_on_a_thread(scenario) : scenario.run();
  faults.stop();
  report.calls = faults.calls();
  report.fault = faults.fault();
  scenario.check(result, report.fault, log);
  scenario.clean_up();
  if (cancels) {
    expect_nothing_lost(scenario, slot);
  }
  EXPECT_LE(faults.blocks(), scenario.blocks_kept + 2 * scenario.threads_kept) << "leaked heap blocks";
  EXPECT_EQ(faults.inheritable(), 0u) << "opened without close-on-exec";
  expect_descriptors(descriptors, scenario.descriptors_kept);
  if (testing::Test::HasFailure()) {
    std::ostringstream lines;
    lines << log;
    std::puts(lines.str().c_str());
  }
  return 0;
}

}  // namespace

std::vector<std::string> find_problems(const Scenario& scenario, uint32_t* calls) {
  std::vector<std::string> problems;
  void* const memory = mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  auto& report = *static_cast<Report*>(memory);
  uint32_t last = 0;
  for (uint32_t number = 0; number <= last; ++number) {
    report = {};
    const ChildOutcome outcome = run_child([&] { return run_with_fault(scenario, number, report); }, scenario.limit);
    if (!outcome.exited()) {
      std::ostringstream text;
      text << report.fault << " (call " << number << " of " << last << ")\n" << outcome;
      problems.push_back(text.str());
    }
    if (number == 0) {
      last = report.calls;
    }
  }
  munmap(memory, sizeof(Report));
  if (calls != nullptr) {
    *calls = last;
  }
  return problems;
}

void sweep(const Scenario& scenario) {
  uint32_t calls = 0;
  for (const std::string& problem : find_problems(scenario, &calls)) {
    ADD_FAILURE() << problem;
  }
  EXPECT_GT(calls, 0u) << "nothing that could fail was called";
}

}  // namespace tirn::test
