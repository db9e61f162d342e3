#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "support/child_process.h"
#include "support/kernel_side.h"
#include "support/log_capture.h"
#include "support/printed.h"
#include "sync/together.h"
#include "tirn/mem.h"

using namespace tirn::test;

namespace {

std::string shown() { return printed(kesa_mem_show); }

const std::string kBegin =
    "Begin to show used memory (Bytes) of all PID.\n"
    "| PID         UsedMem | PID         UsedMem | PID         UsedMem | PID         UsedMem | PID         UsedMem "
    "\n";

}  // namespace

TEST(TaggedMemory, CountsByOwner) {
  LogCapture log;
  auto* const bytes = static_cast<char*>(kesa_malloc(7, 100));
  ASSERT_NE(bytes, nullptr);
  const auto* const head = reinterpret_cast<const kesa_mem_head*>(bytes) - 1;
  EXPECT_TRUE(head->magic == 0xF5F5F5F5u && head->size == 100 && head->pid == 7 && head->reserved == 0);
  std::memset(bytes, 0xAA, 100);
  void* const beyond = kesa_malloc(1024, 10);  // is counted under 0, and taken off again by the id in the head
  EXPECT_EQ(shown(), kBegin + "| 0                10 | 7               100 \nTotal used memory: 110\n");
  kesa_free(beyond);
  kesa_free(bytes);
  EXPECT_EQ(shown(), kBegin + "\nTotal used memory: 0\n");
  EXPECT_TRUE(log.texts().empty()) << log;
  EXPECT_EQ(KernelSide::last_word(PrivateCommand::kMemoryTable), 0x17D00000401u);
}

TEST(TaggedMemory, FiveCountersToALine) {
  for (const uint32_t pid : {1u, 2u, 3u, 4u, 5u, 1023u}) {
    kesa_mem_stat_add(pid, 1000000000 + pid);
  }
  kesa_mem_stat_sub(9, 5);
  EXPECT_EQ(shown(), kBegin +
                         "| 1        1000000001 | 2        1000000002 | 3        1000000003 | 4        1000000004 "
                         "| 5        1000000005 \n"
                         "| 9                -5 | 1023     1000001023 \nTotal used memory: 6000001033\n");
  kesa_mem_show(nullptr);
}

TEST(TaggedMemory, SizesThatCannotBeServed) {
  LogCapture log;
  EXPECT_EQ(kesa_malloc(7, 0), nullptr);
  EXPECT_TRUE(log.texts().empty()) << log;
  EXPECT_EQ(kesa_malloc(7, -16), nullptr);  // with the head, the 32-bit sum wraps
  EXPECT_TRUE(
      log.has(HURN_ERROR, "kesa_mallocsubstandard", "Malloc memory fails. PID: (7), size: (-16), type: (1)."));
  uint32_t type = 0;
  void* const empty = kesa_mallocsubproc(0, &type, 0, 7, __func__, __LINE__);
  EXPECT_NE(empty, nullptr);
  EXPECT_EQ(type, KESA_MEM_TYPE_STANDARD);
  EXPECT_EQ(kesa_munmap(nullptr, 4096), -1);
  kesa_free(empty);
}

TEST(TaggedMemory, FreeingWhatIsNotABlock) {
  KernelSide kernel;
  JiffiesDevice jiffies(kernel);
  LogCapture log(HURN_ERROR);
  for (int i = 0; i < 10; ++i) {
    kesa_freesub(nullptr, "somebody", 13);
  }
  EXPECT_EQ(log.count(HURN_ERROR, "ptr  is null, function(somebody) line(13)"), 3u) << log;
  jiffies.advance(15000);
  kesa_freesub(nullptr, "somebody", 15);
  EXPECT_TRUE(log.has(HURN_ERROR, "kesa_freesub", "print: 7 messages suppressed.kesa_freesub,line=*.")) << log;
  const size_t mapped = mallinfo2().hblks;
  for (int i = 0; i < 5; ++i) {  // these log lines are not limited
    kesa_freesub(std::malloc(1 << 20), "somebody", 14);
  }
  EXPECT_EQ(mallinfo2().hblks, mapped) << "it is freed";
  EXPECT_EQ(log.count(HURN_ERROR, "mem magic is wrong, ptr(0x*), function(somebody) line(14)"), 5u) << log;
}

TEST(TaggedMemory, WorksUncountedWithoutTheService) {
  KernelSide kernel;
  kernel.failing(PrivateCommand::kMemoryTable, ENOSYS);
  errno = 0;
  void* const bytes = kesa_malloc(7, 100);
  EXPECT_NE(bytes, nullptr);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(shown(), kBegin + "\nTotal used memory: 0\n");
  kesa_free(bytes);
  EXPECT_EQ(KernelSide::calls(PrivateCommand::kMemoryTable), 3u);  // the table is asked for at each use
  static void* uncounted = nullptr;
  kernel.replace(PrivateCommand::kMemoryTable, [](uint64_t, uint64_t out, uint64_t, uint64_t, uint64_t) {
    uncounted = uncounted == nullptr ? kesa_malloc(8, 3) : uncounted;
    *reinterpret_cast<void**>(out) = nullptr;
    return 0L;
  });
  kesa_free(kesa_malloc(7, 100));
  kernel.replace(PrivateCommand::kMemoryTable, [](uint64_t, uint64_t out, uint64_t, uint64_t, uint64_t) {
    static int64_t table[1024] = {1, 2, 3};  // the library clears it when it takes the table
    *reinterpret_cast<void**>(out) = table;
    return 0L;
  });
  void* const counted = kesa_malloc(8, 5);
  EXPECT_EQ(shown(), kBegin + "| 8                 5 \nTotal used memory: 5\n");
  kesa_free(counted);
  kesa_free(uncounted);
}

TEST(TaggedMemory, NobodyWaitsForWhoAsksForTheTable) {
  static int asked = 0;
  static void* kept[2];
  KernelSide kernel;
  kernel.replace(PrivateCommand::kMemoryTable, [](uint64_t, uint64_t out, uint64_t, uint64_t, uint64_t) {
    static int64_t table[1024];
    *reinterpret_cast<void**>(out) = table;
    if (++asked == 1) {
      kept[0] = kesa_malloc(9, 5);  // allocates while it asks for the table
      std::thread([] {
        kept[1] = kesa_malloc(9, 6);
        const auto asks_anew = [] {
          kesa_free(kesa_malloc(9, 1));
          return asked == 2 ? 0 : 1;
        };
        EXPECT_TRUE(run_child(asks_anew).exited());  // the parent's unfinished request does not block the child
      }).join();
    }
    return 0L;
  });
  kesa_free(kesa_malloc(9, 4));
  EXPECT_EQ(shown(), kBegin + "| 9                11 \nTotal used memory: 11\n");
  kesa_free(kept[0]);
  kesa_free(kept[1]);
  EXPECT_EQ(shown(), kBegin + "\nTotal used memory: 0\n");
}

TEST(TaggedMemory, CountsOfManyThreadsAreExact) {  // also at first, when all of them look for the table
  void* kept[4];
  together(4, [&kept](unsigned thread) {
    for (int i = 1; i < 5000; ++i) {
      kesa_free(kesa_malloc(7, i % 300 + 1));
    }
    kept[thread] = kesa_malloc(7, 11);
  });
  for (void* const block : kept) {
    kesa_freesubproc(static_cast<kesa_mem_head*>(block) - 1, 1);
  }
  EXPECT_EQ(shown(), kBegin + "| 7                44 \nTotal used memory: 44\n");
}
