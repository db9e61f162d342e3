// What the tests of the stand-in share.
#ifndef TESTS_PLATFORM_STANDIN_H
#define TESTS_PLATFORM_STANDIN_H

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "zut.h"

namespace standin {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

inline constexpr uint64_t kNone = ~uint64_t{0};
inline constexpr uint64_t kModule = 381;

inline uint64_t at(const volatile void* object) {
  return reinterpret_cast<uint64_t>(object);
}

inline long call(uint32_t command, uint64_t a = kNone, uint64_t b = kNone, uint64_t c = kNone, uint64_t d = kNone) {
  errno = 0;
  return zut_private_call(kModule << 32 | command, a, b, c, d);
}

inline pid_t thread_id() {
  return static_cast<pid_t>(syscall(SYS_gettid));
}

template <typename Condition>
void await(const Condition& ready) {
  while (!ready()) {
    std::this_thread::yield();
  }
}

inline bool has_thread(const std::string& name) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string comm;
    std::ifstream file(task.path() / "comm");
    if (std::getline(file, comm) && comm == name) {
      return true;
    }
  }
  return false;
}

}  // namespace standin

#endif
