// A forked child with the process id of its parent, as ids come back once their owners have ended.
#ifndef TIRN_TEST_PLATFORM_NAMESAKE_H
#define TIRN_TEST_PLATFORM_NAMESAKE_H

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>

namespace tirn::test {

// Runs `piece` in a child that is the first process of a namespace; whether no expectation failed in it. Called again by
// the piece, it forks a child with the same id. Needs a private root; no more threads can be started afterwards.
inline bool run_as_first(const std::function<void()>& piece) {
  EXPECT_EQ(unshare(CLONE_NEWPID), 0) << std::strerror(errno);
  const pid_t child = fork();
  if (child == 0) {
    piece();
    _exit(testing::Test::HasFailure() || getpid() != 1);
  }
  int status = -1;
  return waitpid(child, &status, 0) == child && status == 0;
}

}  // namespace tirn::test

#endif
