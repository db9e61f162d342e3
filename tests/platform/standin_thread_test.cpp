// The kernel side in user space: registers and status of living threads.
#include <gtest/gtest.h>
#include <signal.h>
#include <time.h>

#include <string>
#include <vector>

#include "hurn.h"
#include "platform/standin.h"

namespace {

using namespace standin;

struct Stopped {
  uint64_t thread = 0, stack = 0, frame = 0, counter = 0;
  long ask() { return call(0x500, at(&thread), at(&stack), at(&frame), at(&counter)); }
};

struct Target {
  std::atomic<pid_t> id{0};
  uint64_t frame = 0;  // by built-in atomics: they are inlined at any optimisation
  std::atomic<bool> stop{false};
  uint64_t low = 0, high = 0;  // its stack

  void start() {
    pthread_attr_t attributes;
    void* base;
    size_t size;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstack(&attributes, &base, &size);
    pthread_attr_destroy(&attributes);
    low = at(base);
    high = low + size;
    id = thread_id();
  }
  bool on_stack(uint64_t address) const { return low <= address && address < high; }
};

// In a section of its own, whose bounds the linker gives; it calls nothing.
bool spinning = true;
__attribute__((noinline, section("spin_text"))) void spin(Target* target) {
  __atomic_store_n(&target->frame, at(__builtin_frame_address(0)), __ATOMIC_RELEASE);
  while (__atomic_load_n(&spinning, __ATOMIC_RELAXED)) {
  }
}
extern "C" const char __start_spin_text[], __stop_spin_text[];

TEST(StandinRegisters, OfASpinningThread) {
  Target target;
  std::thread thread([&] {
    target.start();
    spin(&target);
  });
  await([&] { return __atomic_load_n(&target.frame, __ATOMIC_ACQUIRE) != 0; });
  for (int round = 0; round < 200 && !HasFailure(); ++round) {
    Stopped stopped{static_cast<uint64_t>(target.id)};
    EXPECT_EQ(stopped.ask(), 0) << errno;
    EXPECT_EQ(stopped.thread, static_cast<uint64_t>(target.id));
    EXPECT_TRUE(target.on_stack(stopped.stack));
#ifndef __SANITIZE_THREAD__  // holds signals back to the next call into its own code
    EXPECT_EQ(stopped.frame, target.frame);
    EXPECT_LE(stopped.stack, stopped.frame);
    EXPECT_GE(stopped.stack + 4096, stopped.frame);
    EXPECT_GE(stopped.counter, at(__start_spin_text));
    EXPECT_LT(stopped.counter, at(__stop_spin_text));
#endif
  }
  __atomic_store_n(&spinning, false, __ATOMIC_RELAXED);
  thread.join();
  Stopped gone{static_cast<uint64_t>(target.id)};
  EXPECT_EQ(gone.ask(), -1);
  EXPECT_EQ(errno, ESRCH);
  for (const uint64_t foreign :
       {uint64_t{1}, uint64_t{0}, kNone, uint64_t{1} << 32 | static_cast<uint32_t>(getpid())}) {
    Stopped other{foreign};
    EXPECT_EQ(other.ask(), -1) << foreign;
    EXPECT_EQ(errno, ESRCH) << foreign;
  }
}

// Blocked in a call, and the caller itself; several at once get each its own thread's registers.
TEST(StandinRegisters, OfSleepersByManyCallers) {
  constexpr int kTargets = 3;
  Target targets[kTargets];
  std::vector<std::thread> threads;
  for (Target& target : targets) {
    threads.emplace_back([&] {
      target.start();
      while (!target.stop) {
        const timespec long_sleep{0, 300'000'000};
        nanosleep(&long_sleep, nullptr);
      }
    });
    await([&] { return target.id != 0; });
  }
  std::vector<std::thread> callers;
  for (const Target& target : targets) {
    callers.emplace_back([&] {
      for (int round = 0; round < 50; ++round) {
        Stopped stopped{static_cast<uint64_t>(target.id)};
        ASSERT_EQ(stopped.ask(), 0) << errno;
        EXPECT_TRUE(target.on_stack(stopped.stack));
        EXPECT_NE(stopped.counter, 0u);
      }
      Stopped self{static_cast<uint64_t>(thread_id())};
      EXPECT_EQ(self.ask(), 0);
      EXPECT_LT(self.stack, at(&self) + 1) << "the caller's own stack pointer lies below its locals";
    });
  }
  for (std::thread& caller : callers) {
    caller.join();
  }
  for (Target& target : targets) {
    target.stop = true;
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST(StandinRegisters, GivesUpOnABlockedSignal) {
  Target target;
  std::thread thread([&] {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    target.start();
    await([&] { return target.stop.load(); });
    pthread_sigmask(SIG_UNBLOCK, &all, nullptr);  // the late signal must find nothing to answer
  });
  await([&] { return target.id != 0; });
  Stopped stopped{static_cast<uint64_t>(target.id), 1, 2, 3};
  const auto start = Clock::now();
  EXPECT_EQ(stopped.ask(), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
  EXPECT_EQ(stopped.stack + stopped.frame + stopped.counter, 6u) << "wrote a result that it does not have";
  target.stop = true;
  thread.join();
  Stopped self{static_cast<uint64_t>(thread_id())};
  EXPECT_EQ(self.ask(), 0) << "the next request is not disturbed";
}

TEST(StandinRegisters, LeavesTheProgramsOwnSignalsAlone) {
  struct sigaction own {};
  own.sa_handler = [](int) {};
  for (const int number : {58, 57}) {
    ASSERT_EQ(sigaction(number, &own, nullptr), 0);
  }
  Stopped self{static_cast<uint64_t>(thread_id())};
  EXPECT_EQ(self.ask(), 0);
  for (const int number : {58, 57, 59, 60, 61}) {
    struct sigaction present {};
    ASSERT_EQ(sigaction(number, nullptr, &present), 0);
    EXPECT_EQ(present.sa_handler, number < 59 ? own.sa_handler : SIG_DFL) << number;
  }
}

TEST(StandinThreads, StatusGoesToTheLog) {
  Target target;
  std::thread thread([&] {
    pthread_setname_np(pthread_self(), "a) sleeper");
    target.start();
    await([&] {
      std::this_thread::sleep_for(milliseconds(50));
      return target.stop.load();
    });
  });
  await([&] { return target.id != 0; });
  std::this_thread::sleep_for(milliseconds(20));
  static std::vector<std::string> lines;
  const hurn_content_record capture{HURN_CALLBACK_ONLY,
                                    [](const hurn_line* line) { lines.emplace_back(line->text, line->length); }};
  hurn_register_content_callback(&capture);
  const uint32_t id = static_cast<uint32_t>(target.id.load());
  const uint32_t cpu = 0;
  EXPECT_EQ(call(0x701, at(&id)), 0);
  EXPECT_EQ(call(0x704, id), 0);
  EXPECT_EQ(call(0x702, at(&cpu)) + call(0x703, at(&cpu)), 0);
  EXPECT_EQ(call(0x704, static_cast<uint64_t>(thread_id())), 0);
  target.stop = true;
  thread.join();
  ASSERT_EQ(lines.size(), 5u);
  const std::string named = "thread " + std::to_string(id) + " (a) sleeper)";
  EXPECT_NE(lines[0].find(named), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find(named), std::string::npos) << lines[1];
  EXPECT_NE(lines[2].find("cpu 0: "), std::string::npos) << lines[2];
  EXPECT_NE(lines[4].find("is running: not dumped"), std::string::npos) << lines[4];
}

}  // namespace
