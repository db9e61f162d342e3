// The detector detects: pieces with a known fault must be found out.
#include "support/faults.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "tirn/mem.h"

using namespace tirn::test;

namespace {

// Forgets the block where the file cannot be opened, or the file where the second block cannot be had.
long leak_on_failure(bool leaks_block, bool leaks_file) {
  void* const first = std::malloc(100);
  if (first == nullptr) {
    return -1;
  }
  const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (!leaks_block) {
      std::free(first);
    }
    return -1;
  }
  void* const second = std::calloc(1, 100);
  std::free(first);
  if (second == nullptr && leaks_file) {
    return -1;
  }
  std::free(second);
  close(fd);
  return second != nullptr ? 0 : -1;
}

std::vector<std::string> problems_of(bool leaks_block, bool leaks_file, uint32_t* calls) {
  return find_problems({.run = [=] { return leak_on_failure(leaks_block, leaks_file); },
                        .check = [](long result, const Fault& fault,
                                    const LogCapture&) { EXPECT_EQ(result, fault.happened ? -1 : 0); },
                        .kinds = kHeapFaults | kFileFaults,
                        .object = Object::program},
                       calls);
}

TEST(Faults, FindALeakedBlock) {
  uint32_t calls = 0;
  const auto problems = problems_of(true, false, &calls);
  ASSERT_EQ(problems.size(), 1u) << problems[0];
  EXPECT_NE(problems[0].find("failing call 2, open"), std::string::npos) << problems[0];
  EXPECT_NE(problems[0].find("leaked heap blocks"), std::string::npos) << problems[0];
}

TEST(Faults, FindALeakedDescriptor) {
  uint32_t calls = 0;
  const auto problems = problems_of(false, true, &calls);
  ASSERT_EQ(problems.size(), 1u) << problems[0];
  EXPECT_NE(problems[0].find("failing call 3, calloc"), std::string::npos) << problems[0];
  EXPECT_NE(problems[0].find("/dev/null"), std::string::npos) << problems[0];
}

TEST(Faults, ReachTheLibraryAlone) {
  const Faults faults({.number = 1, .function = "malloc"});
  void* const own = std::malloc(10);
  EXPECT_NE(own, nullptr);
  std::free(own);
  EXPECT_EQ(kesa_mallocsubstandard(1, 10, 0, "test", 1), nullptr);
  EXPECT_TRUE(faults.fault().happened);
  void* const block = kesa_mallocsubstandard(1, 10, 0, "test", 2);
  EXPECT_NE(block, nullptr);
  EXPECT_EQ(faults.blocks(), 1);
  kesa_freesub(block, "test", 3);
  EXPECT_EQ(faults.blocks(), 0);
}

}  // namespace
