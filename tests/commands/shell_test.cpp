#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "support/child_process.h"
#include "support/faults.h"
#include "tirn/str.h"

using namespace tirn::test;

namespace {

// Returns whether there is no child process, neither running nor waiting to be reaped.
bool has_no_child() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

std::string read_line(FILE* stream) {
  char line[64] = "";
  return stream != nullptr && std::fgets(line, sizeof line, stream) != nullptr ? line : "nothing";
}

}  // namespace

TEST(Shell, RunsAndRefuses) {
  for (const auto run : {kesa_system, kesa_cmd_exec, __wrap_system}) {
    EXPECT_EQ(run(nullptr), KESA_COMMAND_MISSING);
    EXPECT_EQ(run("test $0 = sh && exit 3"), 0x300);
    EXPECT_EQ(run("kill -9 $$"), SIGKILL);
  }
  for (const auto run : {kesa_system_s, system_s}) {
    EXPECT_EQ(run(nullptr, "&"), KESA_COMMAND_MISSING);
    EXPECT_EQ(run("kill -9 $PPID & true", "&;|"), KESA_COMMAND_REFUSED);
    EXPECT_EQ(run("true;exit 3", ";"), 0x300);
  }
  int child = -5;
  for (const char* const mode : {"rw", "", static_cast<const char*>(nullptr), "r"}) {
    const char* const command = mode != nullptr && *mode == 'r' ? "kill -9 $PPID;" : "true";  // one of them is bad
    EXPECT_EQ(kesa_popen_s(command, mode, "$"), nullptr);
    EXPECT_EQ(popen_s(command, mode, "$"), nullptr);
    EXPECT_EQ(kesa_popen_s_with_pid(command, mode, "$", &child), nullptr);
  }
  EXPECT_EQ(kesa_popen("true", "re"), nullptr);
  EXPECT_EQ(kesa_popen_s(nullptr, "r", ""), nullptr);
  EXPECT_EQ(kesa_popen_s_with_pid(nullptr, "r", "", &child), nullptr);
  EXPECT_EQ(kesa_popen_s_with_pid("true", "r", nullptr, nullptr), nullptr);
  EXPECT_EQ(child, -5);
  EXPECT_TRUE(has_no_child());
}

TEST(Shell, BashKeepsStatusesAndTakesNoCodeFromTheEnvironment) {
  if (access("/bin/bash", X_OK) != 0) {
    GTEST_SKIP() << "no shell on this machine that is known to honour &>";
  }
  EXPECT_EQ(kesa_system_s("false &>/dev/null", "&>"), 0x100);
  const std::pair<const char*, const char*> rows[] = {
      {"BASH_FUNC_echo%%", "() { exit 7; }"}, {"SHELLOPTS", "noexec"}, {"BASHOPTS", "xpg_echo"}};
  for (const auto& [name, value] : rows) {
    setenv(name, value, 1);
    EXPECT_EQ(kesa_system("test x$(echo 'one\\c') = 'xone\\c' && exit 3"), 0x300) << name;
    FILE* const stream = kesa_popen("echo 'one\\c'; exit 4", "r");
    EXPECT_EQ(read_line(stream), "one\\c\n") << name;
    EXPECT_EQ(kesa_pclose(stream), 0x400) << name;
    unsetenv(name);
  }
}

TEST(Shell, StreamsBothWays) {
  for (const int closed : {0, 1, 2}) {  // the pipe may then get the standard descriptors
    const ChildOutcome outcome = run_child([closed] {
      for (int fd = 0; fd < closed; ++fd) {
        close(fd);
      }
      FILE* const reader = __wrap_popen("echo one; exit 4", "r");
      EXPECT_EQ(read_line(reader), "one\n");
      EXPECT_EQ(__wrap_pclose(reader), 0x400);
      FILE* const writer = kesa_popen_s("read x && exit $x", "w", "&$");
      EXPECT_GE(std::fputs("5\n", writer), 0);
      return kesa_pclose(writer) == 0x500 ? 0 : 1;
    });
    EXPECT_TRUE(outcome.exited()) << closed << outcome;
  }
}

TEST(Shell, ForeignStreamsStayOpen) {
  int child = 0, status = 0;
  FILE* const mine = kesa_popen_with_pid("read x && exit $x", "a", &child);  // modes that do not begin with r write
  FILE* const theirs = popen_s("echo two", "r", nullptr);
  EXPECT_EQ(kesa_pclose(mine), -1);  // here there is no table yet, below there is one
  EXPECT_EQ(kesa_pclose(kesa_popen("exit 1", "r")), 0x100);
  EXPECT_EQ(kesa_pclose(mine), -1);
  EXPECT_EQ(kesa_pclose(theirs), -1);
  EXPECT_GE(std::fputs("6\n", mine), 0);
  EXPECT_EQ(read_line(theirs), "two\n");
  EXPECT_EQ(std::fclose(mine), 0);
  EXPECT_EQ(pclose(theirs), 0);
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0x600);
  // A stream gets the descriptor of an earlier pipe that was not closed by kesa_pclose. The earlier pipe's child is
  // left alone.
  for (const bool is_mine : {true, false}) {
    std::fclose(kesa_popen("true", "r"));
    FILE* const next = is_mine ? kesa_popen_with_pid("true", "r", &child) : popen_s("true", "r", nullptr);
    EXPECT_EQ(kesa_pclose(next), -1) << is_mine;
    EXPECT_EQ(is_mine ? std::fclose(next) : pclose(next), 0);
  }
}

TEST(Shell, ReplacingTheProcess) {
  char sh[] = "sh", c[] = "-c", exits[] = "exit 3", dangerous[] = "exit $((1+1))";
  char *argv[] = {sh, c, exits, nullptr}, *refused[] = {sh, nullptr, dangerous, nullptr};
  LogCapture log;
  EXPECT_EQ(execv_s(nullptr, 1, argv, "", nullptr), KESA_COMMAND_MISSING);
  EXPECT_EQ(execv_s("/bin/sh", 1, nullptr, "", nullptr), KESA_COMMAND_MISSING);
  EXPECT_EQ(execv_s("/bin/sh", 3, argv, "", [](auto, int argc, auto) { return argc != 3; }), KESA_COMMAND_REFUSED);
  EXPECT_EQ(execv_s("/no;file", 2, refused, "", nullptr), -1);  // the count leaves out the dangerous argument
  EXPECT_EQ(execv_s("/bin/sh", 3, refused, ";", nullptr), KESA_COMMAND_REFUSED);
  EXPECT_EQ(log.texts(), std::vector<std::string>{"execv cmd is dangerous, argv[2] is: exit $((1+1))."});
  EXPECT_TRUE(run_child([&] { return execv_s("/bin/sh", 3, argv, nullptr, nullptr); }).exited(3));
}

TEST(Shell, OnlyClosingBlocksSignals) {
  const std::string test =
      " grep -q 'SigBlk:.*7$' /proc/" + std::to_string(getpid()) + "/task/" + std::to_string(gettid()) + "/status";
  const std::string waits = "until" + test + "; do :; done; exit 9";
  EXPECT_EQ(kesa_pclose(kesa_popen(waits.c_str(), "w")), 0x900);
  EXPECT_EQ(kesa_system(test.c_str()), 0x100);
  signal(SIGCHLD, SIG_IGN);  // no child can be waited for
  EXPECT_EQ(kesa_pclose(kesa_popen("true", "r")), -1);
  EXPECT_EQ(kesa_system("true"), -1);
  sigset_t mask;
  EXPECT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &mask), 0);
  EXPECT_EQ(sigismember(&mask, SIGINT), 0);
  EXPECT_TRUE(has_no_child());
}

TEST(Shell, DescriptorTableFullAndGrown) {
  rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const int last = dup(0);
  limit.rlim_cur = static_cast<rlim_t>(last) + 1;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(kesa_popen("true", "r"), nullptr);  // the table is made for this limit
  limit.rlim_cur += 9;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  for (const char* const mode : {"r", "w"}) {
    errno = 0;
    EXPECT_EQ(kesa_popen("true", mode), nullptr);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_TRUE(has_no_child());
  }
  FILE* const beyond = std::fopen("/dev/null", "r");
  EXPECT_EQ(kesa_pclose(beyond), -1);
  std::fclose(beyond);
  close(last);
  EXPECT_EQ(kesa_pclose(kesa_popen("exit 3", "r")), 0x300);
  EXPECT_EQ(dup(0), last);  // no descriptor is left open
}

TEST(Shell, TableOfAHugeLimitIsNotTouched) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers touch memory of their own for each byte";
#endif
  Imports imports(Object::library);
  imports.redirect("getdtablesize", [] { return 300000000; });
  rusage before{}, after{};
  getrusage(RUSAGE_SELF, &before);
  EXPECT_EQ(kesa_pclose(kesa_popen("exit 3", "r")), 0x300);
  getrusage(RUSAGE_SELF, &after);
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 100 << 10);  // KiB; the table is larger than 1 GiB
}

TEST(Shell, FailingCalls) {
  const auto open_and_close = [] {
    FILE* const stream = kesa_popen("exit 3", "r");
    return stream == nullptr ? 1L : kesa_pclose(stream);
  };
  const auto check = [](long result, const Fault& fault, const LogCapture& log) {
    EXPECT_EQ(result, fault.happened ? 1 : 0x300);
    const bool is_child_left = fault.happened && std::string(fault.function) == "fdopen";
    EXPECT_EQ(has_no_child(), !is_child_left);
    const char* const text = "Iop is NULL, modes:(r), pdes[0]=(*), pdes[1]=(*), errno:(12).";
    EXPECT_EQ(log.has(HURN_INFO, "kesa_popen", text), is_child_left) << log;
  };
  sweep({.prepare = [] { kesa_system("true"); },  // finds the shell, so that the run does not
         .run = open_and_close,
         .check = check,
         .blocks_kept = 1,
         .descriptors_kept = 1});
}
