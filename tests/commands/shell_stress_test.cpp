// Runs commands from many threads at once while signals arrive.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>
#include <vector>

#include "tirn/str.h"

// This runs natively only: the emulator turns vfork into fork, and the child can never take a lock of the emulator
// that another thread held. A child inherits the pipes of other threads, so neither a child nor a thread may wait for
// an end of file.
TEST(ShellStressNative, ThreadsAndSignals) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);  // without SA_RESTART, so that signals interrupt the waits
  const int lowest = dup(0);                           // the lowest descriptor that is free
  close(lowest);
  std::atomic<unsigned> running{16};
  std::vector<std::jthread> threads;
  for (unsigned thread = 0; thread < 16; ++thread) {
    threads.emplace_back([&running, thread] {
      for (unsigned round = 0; round < 20; ++round) {
        const std::string number = std::to_string(1 + (thread * 20 + round) % 200);
        EXPECT_EQ(kesa_system(("exit " + number).c_str()), std::stoi(number) << 8);
        char line[16] = "";
        FILE* const reader = kesa_popen_s(("echo " + number + "; exit " + number).c_str(), "r", ";");
        while (std::fgets(line, sizeof line, reader) == nullptr && std::ferror(reader) != 0) {  // a signal arrived
          std::clearerr(reader);
        }
        EXPECT_EQ(line, number + "\n");
        EXPECT_EQ(kesa_pclose(reader), std::stoi(number) << 8);
      }
      --running;
    });
  }
  while (running != 0) {
    for (std::jthread& thread : threads) {
      pthread_kill(thread.native_handle(), SIGUSR1);
    }
    usleep(3000);
  }
  threads.clear();  // joins them
  EXPECT_EQ(dup(0), lowest);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}
