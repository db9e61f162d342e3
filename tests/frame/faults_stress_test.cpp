// Makes each call of the C library that the frame's modules make fail in turn, and checks the results, the log lines
// and that nothing is leaked.
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/mman.h>

#include <cstring>

#include "loopback.h"
#include "support/faults.h"
#include "threads/pool_watch.h"
#include "tirn/tirn.h"

using namespace tirn::test;

namespace {

int handler(uint32_t, MORU_SYSCALL_PARAM*) { return 0; }

}  // namespace

TEST(FrameFaults, StartUp) {
  const auto check = [](long result, const Fault& fault, const LogCapture& log) {
    EXPECT_EQ(log.count("Kesa init start."), 1u) << log;
    if (result == 0) {
      EXPECT_EQ(log.count("Kesa init end ret 0."), 1u) << log;
    } else {
      EXPECT_TRUE(fault.happened) << log;
      EXPECT_TRUE(log.has(
          HURN_ERROR, "kesa_Init",
          jiffies_uio_get()->jiffies == nullptr ? "Get jiffies usr addr failed." : "Kesa timer initialize failed."))
          << log;
      EXPECT_EQ(log.count("Kesa init end ret -1."), 1u) << log;
    }
  };
  // Whatever failed, the next start succeeds, and does what the failed one left out.
  const auto start_again = [] {
    EXPECT_EQ(kesa_Init(), 0u);
    EXPECT_NE(jiffies_uio_get()->jiffies, nullptr);
  };
  sweep({.prepare = have_no_pool_threads,
         .run = [] { return long{kesa_Init()}; },
         .check = check,
         .clean_up = start_again,
         .threads_kept = 1});
}

// Start-up goes on without a lock that cannot be taken. The first lock is that of the fork handler, which always goes
// on without it.
TEST(FrameFaults, LockThatCannotBeTaken) {
  const struct {
    std::function<void()> prepare;
    long (*run)();
    uint32_t number;  // of the lock whose failure is the result; 0 if there is none
  } kRows[] = {{have_no_pool_threads, [] { return static_cast<long>(kesa_Init()); }, 0},
               {[] { have_no_pool_threads(), kesa_Init(); }, [] { return static_cast<long>(kesa_destory()); }, 1},
               {[] {}, [] { return static_cast<long>(pid_init_names()); }, 2}};
  for (const auto& row : kRows) {
    const auto check = [&row](long result, const Fault& fault, const LogCapture& log) {
      EXPECT_EQ(result, fault.happened && fault.number == row.number ? EINVAL : 0) << row.number << log;
    };
    sweep({.prepare = row.prepare, .run = row.run, .check = check, .kinds = kLockFaults, .threads_kept = 1});
  }
}

// The listener's thread, its client's thread and the client's connection go on after the run. A slot of the thread
// table keeps its record and its signal stack.
TEST(FrameFaults, ServerAndClient) {
  TIRN_NEEDS_PRIVATE_NETWORK();
  const auto serve_and_call = [] {
    const MORU_SYSCALL_ENTRY entry{kEcho, MORU_SYSCALL_DIRECT, serve_echo};
    if (MORU_PrivateSysCallInit() != 0 || MORU_RegSysCall(kGroup, &entry, 1) != 0) {
      return -1L;
    }
    bool echoed = false;
    for (int tries = 0; tries < 50 && !echoed; ++tries) {
      echoed = call(kEcho, "text", 8).second == "text";
      usleep(echoed ? 0 : 2000);
    }
    return echoed ? 0L : -2L;
  };
  const auto check = [](long result, const Fault& fault, const LogCapture& log) {
    if (result != 0) {
      EXPECT_TRUE(fault.happened) << log;
      EXPECT_GE(log.count(HURN_ERROR, "*"), 1u) << log;
    }
    if (fault.happened && fault.function == std::string_view("pthread_create") && fault.number <= 2) {
      EXPECT_GE(log.count("creat syscall thrd failed, ret = 11.\n"), 1u) << log;
    }
  };
  sweep({.run = serve_and_call,
         .check = check,
         .kinds = kHeapFaults | kThreadFaults,
         .blocks_kept = 2 + 2 * 3,
         .descriptors_kept = 3});
}

// The emulator has no netlink protocol for users.
TEST(FrameFaultsNative, EventListenerWithoutMemory) {
  TIRN_NEEDS_PRIVATE_NETWORK();
  LogCapture log;
  const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_USERSOCK);
  ASSERT_GE(fd, 0);
  const Faults faults({.kinds = kHeapFaults, .number = 1});
  EXPECT_EQ(MORU_Netlink_ext3_listen(fd, 4711, [](void*) {}), MORU_NETLINK_NO_MEMORY);
  MORU_Netlink_ext3_release(fd);
}

// If one of a row's functions fails, one log line reports it. If any other function fails, the set-up succeeds.
TEST(FrameFaults, SmallSetUps) {
  static constexpr MORU_SYSCALL_ENTRY kEntries[] = {{0x300, 0, handler}, {0x301, 1, handler}};
  static const std::string name = "/" + unique_name("tirn_faults");
  const struct {
    const char* functions;  // nullptr stands for any
    const char* line;
    bool (*run)();
    void (*clean_up)();
  } kRows[] = {
      {nullptr, "Alloc memory for syscall group (3) fail, count = (2).",
       [] { return MORU_RegSysCall(3, kEntries, 2) == 0; }, [] { MORU_UnRegSysCall(3); }},
      {nullptr, "Load_cpumask failed.*", [] { return cpumask_init() == 0; }, [] { EXPECT_EQ(cpumask_init(), 0); }},
      {"malloc", "Malloc memory fails. PID: (9), size: (64), type: (1).",
       [] {
         void* const block = kesa_malloc(9, 64);
         kesa_free(block);
         return block != nullptr;
       },
       [] {}},
      {"shm_open mmap fallocate", "Open shm fail, errno<*>.",
       [] {
         void* const mapping = kesa_shm_create(name.c_str(), 4096);
         return mapping != nullptr && munmap(mapping, 4096) == 0;
       },
       [] { kesa_shm_destroy(name.c_str()); }},
  };
  for (const auto& row : kRows) {
    const auto check = [&row](long result, const Fault& fault, const LogCapture& log) {
      const bool has_failed =
          fault.happened && (row.functions == nullptr || std::strstr(row.functions, fault.function) != nullptr);
      EXPECT_EQ(result, has_failed ? 0 : 1) << row.line << log;
      EXPECT_EQ(log.count(row.line), has_failed ? 1u : 0u) << row.line << log;
    };
    sweep({.run = [&row] { return long{row.run()}; }, .check = check, .clean_up = row.clean_up});
  }
}

// A start that fails is logged. That of the wheel can be repeated, that of the high-resolution timers is final.
TEST(FrameFaults, Timers) {
  static kesa_timer timer;
  static const auto add_ns = [] {
    kesa_timer_set(&timer, 1'000'000, 0, [](uint64_t) {});
    return kesa_timer_add_ns(&timer);
  };
  const struct {
    int (*start)();
    bool is_final;
  } kRows[] = {{kesa_timer_module_init, false}, {add_ns, true}};
  for (const auto& row : kRows) {
    sweep({.run = [&row] { return static_cast<long>(row.start()); },
           .check =
               [](long result, const Fault& fault, const LogCapture& log) {
                 const size_t failures = log.count("* failed, error no *") + log.count("Create thread failed.");
                 EXPECT_EQ(failures, result == 0 ? 0u : 1u) << log;
                 EXPECT_TRUE(result == 0 || fault.happened) << log;
               },
           .clean_up = [&row] { EXPECT_TRUE(row.is_final || row.start() == 0); },
           .threads_kept = 1});
  }
}
