#include "libtirn/arch/arch.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>
#include <thread>
#include <vector>

using namespace tirn::arch;

TEST(Counter, NeverStepsBackOnOneThread) {
  EXPECT_GE(counter_frequency(), 1000000u);
  uint64_t last = counter_read();
  for (int i = 0; i < 100000; ++i) {
    const uint64_t now = counter_read();
    ASSERT_GE(now, last);
    last = now;
  }
}

// First readings on several threads at once: whichever calibrates, all share one scale and one origin.
TEST(Counter, FirstReadersShareOneScale) {
  std::vector<std::thread> threads;
  std::vector<uint64_t> readings(4);
  for (uint64_t& reading : readings) {
    threads.emplace_back([&reading] { reading = counter_read(); });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  const uint64_t now = counter_read();
  for (const uint64_t reading : readings) {
    EXPECT_LE(reading, now);
    EXPECT_LT(now - reading, counter_frequency() * 20);
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

TEST(Words, EqualAtTheFront) {
  for (const uint64_t value : {uint64_t{0}, ~uint64_t{0}}) {
    for (size_t misaligned : {0, 1, 5}) {
      std::vector<uint8_t> bytes(8 * 200 + misaligned, static_cast<uint8_t>(value));
      uint8_t* const map = bytes.data() + misaligned;
      EXPECT_EQ(equal_words(map, 200, value), 200u);
      EXPECT_EQ(equal_words(map, 0, value), 0u);
      for (const size_t at : {0, 1, 7, 8, 15, 16, 17, 31, 32, 100, 191, 192, 199}) {
        map[at * 8 + at % 8] ^= 0x10;
        EXPECT_EQ(equal_words(map, 200, value), at);
        EXPECT_EQ(equal_words(map, at, value), at);
        map[at * 8 + at % 8] ^= 0x10;
      }
    }
  }
}
