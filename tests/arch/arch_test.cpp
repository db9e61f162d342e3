#include "libtirn/arch/arch.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <thread>
#include <vector>

using namespace tirn::arch;

// First readings on several threads at once: whichever calibrates, all share one scale and one origin, and none sees the
// counter step back.
TEST(Counter, SharesOneScaleAndNeverStepsBack) {
  const uint64_t before = counter_read();
  std::vector<std::thread> threads;
  std::vector<uint64_t> readings(4);
  for (uint64_t& reading : readings) {
    threads.emplace_back([&reading] {
      for (int i = 0; i < 20000; ++i) {
        const uint64_t now = counter_read();
        ASSERT_GE(now, reading);
        reading = now;
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  const uint64_t now = counter_read();
  EXPECT_GE(counter_frequency(), 1000000u);
  for (const uint64_t reading : readings) {
    EXPECT_TRUE(before <= reading && reading <= now) << before << ' ' << reading << ' ' << now;
  }
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
  // The signal arrives in raise(), called from the frame: its stack lies below, and near.
  EXPECT_LT(g_seen.sp, frame);
  EXPECT_LT(frame - g_seen.sp, 65536u);
  EXPECT_NE(cpu_identification(), 0u);
}
