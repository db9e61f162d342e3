// Tests those parts of the test support whose faults would hide faults of the library.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "support/child_process.h"
#include "support/faults.h"
#include "support/private_root.h"
#include "support/temp_folder.h"

using namespace tirn::test;

namespace {

void write_line(const char* text) { hurn(TIRN_MODULE_ID, HURN_INFO, "file", 7, "function", 0, "%s", text); }

TEST(Support, CaptureSeesLinesOfHandlersAndDyingChildren) {
  LogCapture log;
  write_line("before");
  log.clear();
  const ChildOutcome outcome = run_child([] {
    signal(SIGUSR1, [](int) { write_line("in a handler"); });
    raise(SIGUSR1);
    return raise(SIGKILL);
  });
  EXPECT_EQ(outcome.signal, SIGKILL) << outcome;
  ASSERT_EQ(log.lines().size(), 1u) << log;
  EXPECT_NE(log.lines()[0].process, getpid());
  EXPECT_TRUE(log.has(HURN_INFO, "function", "in a*")) << log;
  EXPECT_EQ(log.count("in a"), 0u);
  EXPECT_EQ(log.count("*hand"), 0u);
  EXPECT_EQ(log.count(HURN_ERROR, "*"), 0u);
}

TEST(Support, ChildWithAFailedExpectationIsSeen) {
  const ChildOutcome outcome = run_child([] {
    EXPECT_EQ(1, 2) << "printed in the child";
    return 0;
  });
  EXPECT_TRUE(outcome.exited(ChildProcess::kFailedInside)) << outcome;
  EXPECT_NE(outcome.out.find("printed in the child"), std::string::npos) << outcome;
}

// This holds also for what the root shows of the machine: removing it there does not remove it from the machine.
TEST(Support, PrivateRootLeavesTheMachineAlone) {
  const std::string group = read_file("/etc/group");
  const ChildOutcome outcome = run_child([] {
    PrivateRoot root;
    if (!root.refusal().empty()) {
      return 77;
    }
    root.write_file("/etc/group", "covered");
    root.write_file("/etc/hosts.d/one", "1");
    root.remove("/etc");
    root.write_file("/proc/cpuinfo", "covered");
    EXPECT_EQ(access("/proc/self/task", F_OK), 0);
    return access("/etc", F_OK) == 0 ? 1 : 0;
  });
  if (outcome.exited(77)) {
    GTEST_SKIP() << "no namespaces here";
  }
  EXPECT_TRUE(outcome.exited()) << outcome;
  EXPECT_EQ(read_file("/etc/group"), group);
  EXPECT_NE(access("/etc/hosts.d/one", F_OK), 0);
}

enum Leak { kBlock, kFile, kInherited };

// Leaks the block or the file if the last call fails, or opens the file without close-on-exec.
long leak(Leak kind) {
  void* const block = std::malloc(100);
  const int fd = open("/dev/null", O_RDONLY | (kind == kInherited ? 0 : O_CLOEXEC));
  void* const last = std::calloc(1, 100);
  const bool is_done = block != nullptr && fd >= 0 && last != nullptr;
  if (last != nullptr || kind != kBlock) {
    std::free(block);
  }
  if (fd >= 0 && (last != nullptr || kind != kFile)) {
    close(fd);
  }
  std::free(last);
  return is_done ? 0 : -1;
}

TEST(Faults, FindLeaks) {
  const std::pair<Leak, const char*> cases[] = {
      {kBlock, "leaked heap blocks"}, {kFile, "/dev/null"}, {kInherited, "without close-on-exec"}};
  for (const auto& [kind, text] : cases) {
    const auto check = [](long result, const Fault& fault, auto&) { EXPECT_EQ(result, fault.happened ? -1 : 0); };
    const auto problems =
        find_problems({.run = [kind = kind] { return leak(kind); }, .check = check, .object = Object::program});
    ASSERT_FALSE(problems.empty()) << text;
    EXPECT_NE(problems.back().find("failing call 3, calloc"), std::string::npos) << problems.back();
    EXPECT_NE(problems.back().find(text), std::string::npos) << problems.back();
    EXPECT_EQ(problems.size(), kind == kInherited ? 3u : 1u) << text;
  }
}

}  // namespace
