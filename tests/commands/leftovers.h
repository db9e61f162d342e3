// What commands leave behind.
#ifndef TIRN_TEST_LEFTOVERS_H
#define TIRN_TEST_LEFTOVERS_H

#include <sys/wait.h>

#include <cerrno>
#include <filesystem>

// Neither running nor waiting to be reaped.
inline bool has_no_child() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

inline long count_descriptors() {
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return std::distance(begin(descriptors), end(descriptors));
}

#endif
