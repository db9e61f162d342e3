// A piece of a test in a process of its own: how it ended, and what it wrote.
#ifndef TIRN_TEST_CHILD_PROCESS_H
#define TIRN_TEST_CHILD_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <ostream>
#include <string>

namespace tirn::test {

struct ChildOutcome {
  int status = -1;  // of exit, -1 where it did not exit
  int signal = 0;   // that killed it, 0 where none did
  bool timed_out = false;
  std::string out;
  std::string err;

  bool exited(int with = 0) const { return signal == 0 && status == with; }
};
std::ostream& operator<<(std::ostream& stream, const ChildOutcome& outcome);

// Forked at once. The child runs the piece and ends by _exit with its result, or with kFailedInside where an
// expectation failed in it (it is told in `out`). It has no core dump and dies with its parent. Log lines of the
// child are in the parent's LogCapture.
class ChildProcess {
 public:
  static constexpr int kFailedInside = 99;

  explicit ChildProcess(const std::function<int()>& piece,
                        std::chrono::milliseconds limit = std::chrono::seconds(20));
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();  // kills it if it still runs

  pid_t pid() const { return pid_; }
  void kill(int signal) const;
  // Waits for the end, at most to the limit, past which the child is killed.
  ChildOutcome wait();
  // What it has written to stdout so far.
  std::string out() const;

 private:
  pid_t pid_ = -1;
  bool is_over_ = false;
  ChildOutcome outcome_;
  std::chrono::steady_clock::time_point end_;
  int out_ = -1;
  int err_ = -1;
};

// ChildProcess(piece, limit).wait()
ChildOutcome run_child(const std::function<int()>& piece, std::chrono::milliseconds limit = std::chrono::seconds(20));

}  // namespace tirn::test

#endif
