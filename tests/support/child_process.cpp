#include "child_process.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>

#include "wait_until.h"

namespace tirn::test {
namespace {
using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

[[noreturn]] void run_piece(const std::function<int()>& piece, int out, int err) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const rlimit no_core{0, 0};
  setrlimit(RLIMIT_CORE, &no_core);
  dup2(out, STDOUT_FILENO);
  dup2(err, STDERR_FILENO);
  // The test may have failed in the parent before the fork.
  const testing::TestResult& test = *testing::UnitTest::GetInstance()->current_test_info()->result();
  const int failed_before = test.total_part_count();
  int status = piece();
  if (test.total_part_count() != failed_before) {
    status = ChildProcess::kFailedInside;
  }
  fflush(stdout);
  _exit(status);
}

std::string contents(int fd) {
  std::string text;
  char piece[4096];
  ssize_t length;
  while ((length = pread(fd, piece, sizeof piece, static_cast<off_t>(text.size()))) > 0) {
    text.append(piece, static_cast<size_t>(length));
  }
  return text;
}

}  // namespace

ChildProcess::ChildProcess(const std::function<int()>& piece, milliseconds limit)
    : end_(steady_clock::now() + limit),
      out_(memfd_create("stdout", MFD_CLOEXEC)),  // a pipe could fill up, or be held open by a grandchild
      err_(memfd_create("stderr", MFD_CLOEXEC)) {
  fflush(stdout);  // otherwise both processes would write what is buffered
  pid_ = fork();
  if (pid_ == 0) {
    run_piece(piece, out_, err_);
  }
  is_over_ = pid_ < 0;
  EXPECT_FALSE(is_over_) << "fork failed, errno " << errno;
}

ChildProcess::~ChildProcess() {
  if (!is_over_) {
    kill(SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  close(out_);
  close(err_);
}

void ChildProcess::kill(int signal) const {
  if (!is_over_) {
    ::kill(pid_, signal);
  }
}

std::string ChildProcess::out() const { return contents(out_); }

ChildOutcome ChildProcess::wait() {
  if (!is_over_) {
    int status = 0;
    pid_t ended = 0;
    const auto look = [&] { return (ended = waitpid(pid_, &status, WNOHANG)) != 0; };
    outcome_.timed_out = !wait_until(look, duration_cast<milliseconds>(end_ - steady_clock::now()));
    if (outcome_.timed_out) {
      kill(SIGKILL);
      ended = waitpid(pid_, &status, 0);
    }
    EXPECT_EQ(ended, pid_) << "somebody else has waited for the child";
    is_over_ = true;
    outcome_.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    outcome_.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  }
  outcome_.out = contents(out_);
  outcome_.err = contents(err_);
  return outcome_;
}

ChildOutcome run_child(const std::function<int()>& piece, milliseconds limit) {
  return ChildProcess(piece, limit).wait();
}

std::ostream& operator<<(std::ostream& stream, const ChildOutcome& outcome) {
  return stream << "child: status " << outcome.status << ", signal " << outcome.signal
                << (outcome.timed_out ? ", at its time limit" : "") << "\nstdout:\n"
                << outcome.out << "\nstderr:\n"
                << outcome.err << '\n';
}

}  // namespace tirn::test
