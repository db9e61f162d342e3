// Tests the log library hurn: whole log lines in each sink, rotating files, limits, and calls in signal handlers.
#include "hurn.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "support/child_process.h"
#include "support/imports.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

namespace {

namespace fs = std::filesystem;
using std::string;
using tirn::test::matches;
using tirn::test::read_file;

// Returns the log lines of a file without their prefixes.
string texts_of(const string& path) {
  std::istringstream lines(read_file(path));
  string texts;
  for (string line; std::getline(lines, line); texts += '\n') {
    const size_t prefix = line.rfind(": ");
    texts += prefix == string::npos ? line : line.substr(prefix + 2);
  }
  return texts;
}

class Hurn : public testing::Test {
 protected:
  ~Hurn() override { hurn_destroy(); }
  void use_file(const string& limits = "") { ASSERT_EQ(0, hurn_init("tester", ("file:" + log_ + limits).c_str())); }
  const tirn::test::TempFolder folder_;
  const string log_ = folder_.path("log");
};

void info(uint32_t module, const string& text) { hurn(module, HURN_INFO, "f", 1, "g", 0, "%s", text.c_str()); }

TEST_F(Hurn, LevelsAndOddOnesWriteNothing) {
  // Through a pointer without the format attribute, the compiler accepts such formats.
  void (*const line)(uint32_t, uint32_t, const char*, uint32_t, const char*, uint32_t, const char*, ...) = hurn;
  int (*const original)(const char*, ...) = hurn_original;
  use_file();
  for (const uint32_t level : {0u, 1u, 2u, 5u, 8u, 35u, 381u, UINT32_MAX}) {
    EXPECT_EQ(-1, hurn_level_check(3, level)) << level;
    EXPECT_EQ(-1, hurn_loglevel_set(3, level)) << level;
    line(3, level, "f", 1, "g", 0, reinterpret_cast<const char*>(uintptr_t{381}));
  }
  line(3, HURN_INFO, "f", 1, "g", 0, nullptr);
  EXPECT_EQ(-1, original(nullptr));
  EXPECT_EQ("", read_file(log_));

  EXPECT_EQ(0, hurn_loglevel_set(0, HURN_ERROR));
  EXPECT_EQ(-1, hurn_level_check(UINT32_MAX, HURN_WARNING)) << "as module 0";
  EXPECT_EQ(0, hurn_level_check(1, HURN_INFO));
  EXPECT_EQ(0, hurn_loglevel_set(HURN_ALL_MODULES, HURN_DEBUG));
  EXPECT_EQ(static_cast<int>(HURN_DEBUG), hurn_loglevel_get(HURN_MODULE_COUNT - 1));
  EXPECT_EQ(-1, hurn_loglevel_set(HURN_MODULE_COUNT, HURN_INFO));
  EXPECT_EQ(-1, hurn_loglevel_get(HURN_MODULE_COUNT));
}

TEST_F(Hurn, ShapeAndCutOfLines) {
  use_file();
  hurn(381, HURN_ERROR, "kesa_init", 77, "kesa_Init", 0, "Step %d failed.", 3);
  hurn(381, HURN_DEBUG, nullptr, 78, nullptr, 0, "Its level is not asked.\n");
  hurn_original("<%d>raw\n", 12);
  hurn_original("%s", "");
  EXPECT_EQ(4095, hurn_original("%s", string(4095, 'a').c_str()));
  EXPECT_EQ(4095, hurn_original("%s", string(4096, 'b').c_str()));
  hurn(3, HURN_INFO, string(5000, 'f').c_str(), 1, string(5000, 'g').c_str(), 0, "%s", string(9000, 'd').c_str());
  const string place = "Z tester[" + std::to_string(getpid()) + "/" + std::to_string(gettid()) + "] ";
  const string log = read_file(log_);
  const string whole = "20*-*-*T*:*:*.*" + place + "error 381 kesa_init:77 kesa_Init: Step 3 failed.\n20*" + place +
                       "debug 381 ?:78 ?: Its level is not asked.\n<12>raw\n\n" + string(4095, 'a') + "\n" +
                       string(4087, 'b') + "...[cut]\n20*";
  EXPECT_TRUE(matches(log, whole + place + "info 3 f*ddd...[cut]\n")) << log;
  EXPECT_EQ('\n', log[log.size() - 4097]) << "the last line is as long as a line can be";
}

// A handler writes the texts, on a stack that shows how much of it was used. No text may need over 1024 bytes more
// than the plain one.
TEST_F(Hurn, ControlCharactersForgeNoLine) {
  static string text;
  static char bytes[0x10000];
  const stack_t stack{bytes, 0, sizeof bytes};
  ASSERT_EQ(0, sigaltstack(&stack, nullptr));
  struct sigaction action {};
  action.sa_handler = [](int) { hurn_original("%s", text.c_str()); };
  action.sa_flags = SA_ONSTACK;
  sigaction(SIGUSR1, &action, nullptr);
  const std::pair<string, string> rows[] = {
      {"plain\ttab \xc3\xa4", "plain\ttab \xc3\xa4"},
      {"a\nb\x1b[2J\r\x7f", "a\\nb\\x1b[2J\\r\\x7f"},
      {"\n\ntwo\n\n", "two"},
      {string(4096, '\n'), ""},
      {string(4096, '\x01'), "\\x01\\x01*\\x01...[cut]"},
      {string(4091, 'a') + "\x1f", string(4091, 'a') + "\\x1f"},
      {string(4094, 'a') + "\r\n", string(4087, 'a') + "...[cut]"},
  };
  size_t left = 0;
  for (const auto& [sent, shown] : rows) {
    use_file();
    text = sent;
    memset(bytes, 'x', sizeof bytes);
    raise(SIGUSR1);
    left = left != 0 ? left : string(bytes, sizeof bytes).find_first_not_of('x');
    EXPECT_EQ(string(left - 1024, 'x'), string(bytes, left - 1024)) << sent;
    const string log = read_file(log_);
    EXPECT_TRUE(matches(log, shown + "\n") && log.size() <= HURN_LINE_MAX && log.find('\n') + 1 == log.size()) << log;
    unlink(log_.c_str());
  }
}

TEST_F(Hurn, MalformedSinksLeaveTheFormerOne) {
  use_file();
  errno = 117;
  for (const char* sink :
       {"", "stdout", "syslog:", "stderr ", "file", "file:", "file::5", "file:/tmp", "file:/no/log"})
    EXPECT_EQ(-1, hurn_init("other", sink)) << sink;
  for (const char* tail :
       {"/none", ":", ":0", ":-1", ":1k", ":99999999999999999999", "::3", ":5:", ":5:0", ":5:1000", ":5:3:1"})
    EXPECT_EQ(-1, hurn_init("other", ("file:" + log_ + tail).c_str())) << tail;
  EXPECT_EQ(-1, hurn_init("other", ("file:/" + string(5000, 'x')).c_str()));
  info(1, "still here");
  hurn_destroy();
  close(STDERR_FILENO);
  hurn_original("nowhere");
  EXPECT_EQ(117, errno);
  EXPECT_TRUE(matches(read_file(log_), "* tester[*: still here\n")) << read_file(log_);
}

// Two threads in each of three processes write to one file, which is renamed every few dozen log lines. A signal
// handler interrupts them at any point.
TEST_F(Hurn, RotationUnderLoadMixesAndLosesNothing) {
  constexpr int kLines = 600;
  static std::atomic<int> raised{0};
  const auto write_lines = [&](int first) {
    const auto write = [&](int writer) {
      for (int i = 0; i < kLines; i++) {
        if (i % 100 == 0)
          use_file(":6000:900");  // the sink changes while the other thread writes
        errno = ENOTTY;
        hurn(1, HURN_INFO, "f", 1, "g", 0, "%d %d%*s|%m", writer, i, i % 300, "");
        ASSERT_EQ(ENOTTY, errno);
      }
    };
    std::thread other([&] {
      pthread_cancel(pthread_self());  // stays pending, as no operation is a cancellation point
      write(first + 1);
    });
    write(first);
    other.join();
    return 0;
  };
  tirn::test::ChildProcess one([&] { return write_lines(2); }), two([&] { return write_lines(4); });
  use_file();
  signal(SIGALRM, [](int) { hurn_original("<%d>signal", raised.fetch_add(1)); });
  ualarm(500, 500);
  write_lines(0);
  ualarm(0, 0);
  EXPECT_TRUE(one.wait().exited());
  EXPECT_TRUE(two.wait().exited());
  std::multiset<string> expected, found;
  const string error = strerror(ENOTTY);
  for (unsigned i = 0; i < 6 * kLines; i++)
    expected.insert(std::to_string(i % 6) + ' ' + std::to_string(i / 6) + string(i / 6 % 300, ' ') + '|' + error);
  for (int i = 0; i < raised; i++)
    expected.insert("<" + std::to_string(i) + ">signal");
  for (const auto& entry : fs::directory_iterator(folder_.path())) {
    std::istringstream lines(texts_of(entry.path()));
    for (string line; std::getline(lines, line);)
      found.insert(line);
  }
  EXPECT_EQ(expected, found);
  EXPECT_TRUE(fs::exists(log_ + ".10") && raised > 0);
}

TEST_F(Hurn, FilesArePrivateFewAndWhole) {
  const auto descriptors = [](int more) {  // counts those that are open, and those that a program would inherit
    std::pair count(more, 0);
    for (const auto& descriptor : fs::directory_iterator("/proc/self/fd")) {
      count.first++;
      count.second += fcntl(std::stoi(descriptor.path().filename()), F_GETFD) == 0;
    }
    return count;
  };
  const auto expected = descriptors(1);
  tirn::test::Imports imports(tirn::test::Object::log);
  imports.redirect("open", [](const char* name, int flags, mode_t mode) {
    return flags & O_CLOEXEC ? open(name, flags, mode) : -1;
  });
  umask(0);
  use_file(":100");
  for (int i = 0; i < 10; i++)
    info(1, string(100, 'x'));
  std::set<string> names;
  for (const auto& file : fs::directory_iterator(folder_.path())) {
    names.insert(file.path().filename());
    EXPECT_EQ(0640, static_cast<int>(file.status().permissions()));
  }
  EXPECT_EQ((std::set<string>{"log", "log.1", "log.2", "log.3", "log.4"}), names);
  EXPECT_EQ(expected, descriptors(0));

  static string sent;
  imports.redirect("sendmsg", [](int, const msghdr* message, int) -> ssize_t {
    for (size_t i = 0; i < message->msg_iovlen; i++)
      sent.append(static_cast<const char*>(message->msg_iov[i].iov_base), message->msg_iov[i].iov_len);
    return 1;
  });
  ASSERT_EQ(0, hurn_init("tester", "syslog"));
  info(3, "to the system log\n");
  EXPECT_EQ("<14>tester[" + std::to_string(getpid()) + "]: info 3 f:1 g: to the system log", sent);
  EXPECT_EQ(expected, descriptors(0));

  imports.redirect("write", [](int descriptor, const void* bytes, size_t count) {
    static int calls = 0;
    errno = EINTR;
    return calls++ % 2 == 0 ? -1 : write(descriptor, bytes, std::min<size_t>(count, 5));
  });
  use_file();
  EXPECT_EQ(23, hurn_original("one piece after another"));
  EXPECT_EQ("one piece after another\n", read_file(log_));
}

TEST_F(Hurn, LimitsHoldLinesBackAndReportThem) {
  use_file();
  const auto write = [&](uint32_t module, int count) {
    for (int i = 0; i < count; i++)
      info(module, std::to_string(module) + '/' + std::to_string(i));
  };
  const auto expect = [&](const char* texts) {
    EXPECT_EQ(texts, texts_of(log_));
    EXPECT_EQ(0, truncate(log_.c_str(), 0));
  };
  ASSERT_EQ(0, hurn_ratelimit_set(7, 2, 60000));
  write(7, 4);
  usleep(70000);  // far less than the window of a minute
  write(7, 1);
  write(8, 1);
  hurn_original("never held back");
  expect("7/0\n7/1\n8/0\nnever held back\n");
  ASSERT_EQ(0, hurn_ratelimit_set(7, 1, 1));
  write(7, 1);
  usleep(2000);
  write(7, 1);
  expect("3 lines of group 7 suppressed.\n7/0\n7/0\n");

  // A log line that the limit of its level holds back does not count towards the limit of its module.
  const uint32_t infos = hurn_get_group_id("info");
  ASSERT_EQ(0, hurn_ratelimit_set(7, 2, 60000));
  ASSERT_EQ(0, hurn_ratelimit_set(infos, 1, 60000));
  write(7, 4);
  ASSERT_EQ(0, hurn_ratelimit_set(infos, 0, 60000));
  write(7, 3);
  expect("7/0\n3 lines of group info suppressed.\n7/0\n");

  ASSERT_EQ(0, hurn_ratelimit_set(9, 25, 600000));
  std::thread other(write, 9, 2000);
  write(9, 2000);
  other.join();
  ASSERT_EQ(0, truncate(log_.c_str(), 0));
  ASSERT_EQ(0, hurn_ratelimit_set(9, 0, 0));
  write(9, 1);
  expect("3975 lines of group 9 suppressed.\n9/0\n");

  for (const char* name : {"", "1024", "-1", "+1", " 1", "1 ", "0x1", "4294967296", "Error", "errors"})
    EXPECT_EQ(HURN_NO_GROUP, hurn_get_group_id(name)) << name;
  EXPECT_EQ(-1, hurn_ratelimit_set(HURN_MODULE_COUNT + 8, 1, 1));
  EXPECT_EQ(-1, hurn_ratelimit_set(HURN_NO_GROUP, 1, 1));
}

}  // namespace
