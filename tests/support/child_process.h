// Runs a piece of a test in a process of its own, and reports how the process ended and what it wrote.
#ifndef TIRN_TEST_CHILD_PROCESS_H
#define TIRN_TEST_CHILD_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <ostream>
#include <string>

namespace tirn::test {

struct ChildOutcome {
  int status = -1;  // the exit status, or -1 if the child did not exit
  int signal = 0;   // the signal that killed it, or 0
  bool timed_out = false;
  std::string out;
  std::string err;

  bool exited(int with = 0) const { return signal == 0 && status == with; }
};
std::ostream& operator<<(std::ostream& stream, const ChildOutcome& outcome);

// The constructor forks the child. The child runs the piece and calls _exit with its result, or with kFailedInside if
// an expectation failed in it (the failure is printed in `out`). It dumps no core and dies with its parent. The
// parent's LogCapture holds the child's log lines too.
class ChildProcess {
 public:
  static constexpr int kFailedInside = 99;

  explicit ChildProcess(const std::function<int()>& piece,
                        std::chrono::milliseconds limit = std::chrono::seconds(20));
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();  // kills the child if it still runs

  pid_t pid() const { return pid_; }
  void kill(int signal) const;
  // Waits for the child to end. Kills it once the limit has passed.
  ChildOutcome wait();
  // Returns what the child has written to stdout so far.
  std::string out() const;

 private:
  pid_t pid_ = -1;
  bool is_over_ = false;
  ChildOutcome outcome_;
  std::chrono::steady_clock::time_point end_;
  int out_ = -1;
  int err_ = -1;
};

// Starts a child and waits for it: ChildProcess(piece, limit).wait().
ChildOutcome run_child(const std::function<int()>& piece, std::chrono::milliseconds limit = std::chrono::seconds(20));

}  // namespace tirn::test

// At the start of a test that forks while other threads allocate.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TIRN_NEEDS_FORKS() GTEST_SKIP() << "the sanitizers' allocator loses its locks in a threaded process's child"
#else
#define TIRN_NEEDS_FORKS() static_assert(true)
#endif

#endif
