#include "libtirn/arch/arch.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>

#include "sync/together.h"

using namespace tirn::arch;

// Several threads make their first readings at once. Whichever thread calibrates, all must share one scale and one
// origin, and no thread may see the counter step back.
TEST(Counter, SharesOneScaleAndNeverStepsBack) {
  constexpr uint64_t kAhead = 100;  // ticks by which the processor may read the counter too early
  std::atomic<uint64_t> latest{0};
  tirn::test::together(4, [&](unsigned) {
    uint64_t mine = 0;
    for (int i = 0; i < 20000; ++i) {
      const uint64_t seen = latest, now = counter_read();
      ASSERT_TRUE(mine <= now && seen <= now + kAhead) << mine << ' ' << seen << ' ' << now;
      latest = mine = now;
    }
  });
  EXPECT_GE(counter_frequency(), 1000000u);
}

namespace {

Registers g_seen;

void take_registers(int, siginfo_t*, void* context) {
  g_seen = registers_of(*static_cast<const ucontext_t*>(context));
}

__attribute__((noinline)) uintptr_t raise_here() {
  raise(SIGUSR1);
  return TIRN_FRAME_POINTER();
}

}  // namespace

TEST(ArchRegisters, OfInterruptedCode) {
  struct sigaction action {};
  action.sa_sigaction = take_registers;
  action.sa_flags = SA_SIGINFO;
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
  const uintptr_t frame = raise_here();
  EXPECT_NE(g_seen.pc, 0u);
  // The signal arrives in raise(), which raise_here() called, so the stack pointer is a little below the frame.
  EXPECT_TRUE(g_seen.sp < frame && frame - g_seen.sp < 65536) << g_seen.sp << ' ' << frame;
  EXPECT_NE(cpu_identification(), 0u);
}
