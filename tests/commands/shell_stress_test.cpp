// Commands from many threads at once, with signals arriving.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>
#include <vector>

#include "tirn/str.h"

namespace {

std::atomic<uint32_t> g_signals{0};

// A child inherits the pipes of the others, so none of them, nor this thread, waits for an end of file.
void run_commands(unsigned code) {
  const std::string number = std::to_string(code);
  const int exited = static_cast<int>(code) << 8;
  EXPECT_EQ(kesa_system(("exit " + number).c_str()), exited);

  char line[16] = "";
  FILE* const reader = kesa_popen_s(("echo " + number + "; exit " + number).c_str(), "r", ";");
  ASSERT_NE(reader, nullptr);
  while (std::fgets(line, sizeof line, reader) == nullptr && std::ferror(reader) != 0) {  // a signal came
    std::clearerr(reader);
  }
  EXPECT_EQ(line, number + "\n");
  EXPECT_EQ(kesa_pclose(reader), exited);
}

}  // namespace

TEST(ShellStress, ThreadsAndSignals) {
  struct sigaction action {};
  action.sa_handler = [](int) { ++g_signals; };
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);  // without SA_RESTART: the waits are interrupted
  const int lowest = dup(0);                           // the lowest descriptor that is free
  close(lowest);
  std::atomic<unsigned> running{16};
  std::vector<std::thread> threads;
  for (unsigned thread = 0; thread < 16; ++thread) {
    threads.emplace_back([&running, thread] {
      const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
      for (unsigned round = 0; round < 3 || std::chrono::steady_clock::now() < end; ++round) {
        run_commands(1 + (thread * 7 + round) % 200);
      }
      --running;
    });
  }
  while (running != 0) {
    for (std::thread& thread : threads) {
      pthread_kill(thread.native_handle(), SIGUSR1);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_GT(g_signals, 100u);
  EXPECT_EQ(dup(0), lowest);
  EXPECT_EQ(dup(0), lowest + 1);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}
