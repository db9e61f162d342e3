// hurn: whole lines in each sink, files that rotate, limits, and what a signal handler may do.
#include "hurn.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/namesake.h"
#include "support/child_process.h"
#include "support/log_capture.h"
#include "support/private_root.h"
#include "support/temp_folder.h"
#include "support/wait_until.h"

namespace {

namespace fs = std::filesystem;
using std::string;
using tirn::test::matches;
using tirn::test::read_file;
using Texts = std::vector<string>;

// The lines of a file without their prefixes.
Texts texts_of(const string& path) {
  Texts texts;
  const string bytes = read_file(path);
  EXPECT_TRUE(bytes.empty() || bytes.back() == '\n') << path << " ends within a line";
  std::istringstream stream(bytes);
  for (string line; std::getline(stream, line);) {
    const size_t prefix = line.rfind(": ");
    texts.push_back(prefix == string::npos ? line : line.substr(prefix + 2));
  }
  return texts;
}

class Hurn : public testing::Test {
 protected:
  ~Hurn() override { hurn_destroy(); }
  void use_file(const string& behind = "") { ASSERT_EQ(0, hurn_init("tester", ("file:" + log_ + behind).c_str())); }
  // The lines of all files of the folder: the log and what it was renamed to.
  std::multiset<string> all_texts() const {
    std::multiset<string> all;
    for (const auto& entry : fs::directory_iterator(folder_.path())) {
      const Texts texts = texts_of(entry.path());
      all.insert(texts.begin(), texts.end());
    }
    return all;
  }

  const tirn::test::TempFolder folder_;
  const string log_ = folder_.path("log");
};

void info(uint32_t module, const string& text) { hurn(module, HURN_INFO, "f", 1, "g", 0, "%s", text.c_str()); }

TEST_F(Hurn, LevelsAndOddOnesWriteNothing) {
  // Without the attribute the compiler lets such formats pass.
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
  EXPECT_EQ(0, hurn_level_check(1, HURN_INFO) + hurn_loglevel_set(HURN_ALL_MODULES, HURN_DEBUG));
  EXPECT_EQ(7, hurn_loglevel_get(1023));
  EXPECT_EQ(-2, hurn_loglevel_set(1024, HURN_INFO) + hurn_loglevel_get(1024));
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

TEST_F(Hurn, ControlCharactersForgeNoLine) {
  const std::pair<string, string> kRows[] = {{"a\nb", "a\\nb"},
                                             {"tab\tstays \xc3\xa4", "tab\tstays \xc3\xa4"},
                                             {"\x1b[2J\r\x7f", "\\x1b[2J\\r\\x7f"},
                                             {"two\n\n", "two\\n"},
                                             {string(4096, '\n'), string()},
                                             {string(4094, 'a') + "\n", string(4094, 'a')}};
  for (const auto& [text, shown] : kRows) {
    use_file();
    hurn_original("%s", text.c_str());
    const string log = read_file(log_);
    EXPECT_LE(log.size(), size_t{HURN_LINE_MAX});
    EXPECT_EQ(1, std::count(log.begin(), log.end(), '\n'));
    EXPECT_TRUE(shown.empty() ? matches(log, "\\n\\n*\\n...[cut]\n") : log == shown + "\n") << log;
    unlink(log_.c_str());
  }
}

// A thread that is cancelled while its line rotates the file: the next one rotates too, and the sink can be changed.
TEST_F(Hurn, CancelledWritersGoOnRotating) {
  const auto outcome = tirn::test::run_child([this] {
    EXPECT_EQ(0, hurn_init("tester", ("file:" + log_ + ":50:2").c_str()));
    for (int i = 0; i < 3; i++) {
      pthread_t thread;
      pthread_create(
          &thread, nullptr,
          [](void*) -> void* {
            pthread_cancel(pthread_self());
            hurn_original("%s", string(60, 'x').c_str());
            return nullptr;
          },
          nullptr);
      pthread_join(thread, nullptr);
    }
    EXPECT_EQ(61u, read_file(log_ + ".2").size());
    EXPECT_EQ(0, hurn_init("tester", "stderr"));
    return 0;
  });
  EXPECT_TRUE(outcome.exited()) << outcome;
}

TEST_F(Hurn, MalformedSinksLeaveTheFormerOne) {
  use_file();
  for (const char* sink : {"", "stdout", "syslog:", "stderr ", "file", "file:", "file::5", "file:/tmp"})
    EXPECT_EQ(-1, hurn_init("other", sink)) << sink;
  for (const char* tail :
       {"/none", ":", ":0", ":-1", ":1k", ":99999999999999999999", "::3", ":5:", ":5:0", ":5:1000", ":5:3:1"})
    EXPECT_EQ(-1, hurn_init("other", ("file:" + log_ + tail).c_str())) << tail;
  EXPECT_EQ(-1, hurn_init("other", ("file:/" + string(5000, 'x')).c_str()));
  info(1, "still here");
  EXPECT_TRUE(matches(read_file(log_), "* tester[*: still here\n")) << read_file(log_);
}

// Two threads in each of three processes write to one file that is renamed every few dozen lines.
TEST_F(Hurn, RotationUnderLoadMixesAndLosesNothing) {
  constexpr int kLines = 600;
  const auto text_of = [](int writer, int i) {
    return std::to_string(writer) + ' ' + std::to_string(i) + string(static_cast<size_t>(i % 300), 'x') + '|';
  };
  use_file(":6000:900");
  const auto write_lines = [&](int first) {
    const auto write = [&](int writer) {
      for (int i = 0; i < kLines; i++) {
        if (i % 100 == 99)
          use_file(":6000:900");  // the sink changes while the other thread writes
        info(1, text_of(writer, i));
      }
    };
    std::thread other(write, first + 1);
    write(first);
    other.join();
    return 0;
  };
  tirn::test::ChildProcess one([&] { return write_lines(2); }), two([&] { return write_lines(4); });
  write_lines(0);
  EXPECT_TRUE(one.wait().exited() && two.wait().exited());
  std::multiset<string> expected;
  for (int i = 0; i < 6 * kLines; i++)
    expected.insert(text_of(i % 6, i / 6));
  EXPECT_EQ(expected, all_texts());
  EXPECT_TRUE(fs::exists(log_ + ".10"));
}

// The handler comes in the middle of whatever the thread was at, this library's own writing and rotating too.
TEST_F(Hurn, ErrnoIsKeptAndHandlersMayWrite) {
  use_file(":2000:900");
  static std::atomic<int> raised{0};
  signal(SIGUSR1, [](int) { hurn_original("<%d>signal", raised.fetch_add(1)); });
  std::atomic<bool> stop{false};
  std::thread sender([&, target = pthread_self()] {
    for (; !stop; usleep(50))
      pthread_kill(target, SIGUSR1);
  });
  for (int i = 0; i < 4000 || raised < 100; i++) {
    errno = 117;
    hurn(1, HURN_INFO, "f", 1, "g", 0, "plain %d %m", i);
    ASSERT_EQ(117, errno);
  }
  stop = true;
  sender.join();
  // The oldest files may have been dropped; what is left is whole, and nothing stands there twice.
  const std::multiset<string> found = all_texts();
  EXPECT_GT(found.size(), 1000u);
  for (const string& line : found) {
    EXPECT_EQ(1u, found.count(line)) << line;
    EXPECT_TRUE(matches(line, string("plain * ") + strerror(117)) || matches(line, "<*>signal")) << line;
  }

  errno = 117;
  EXPECT_EQ(-1, hurn_init(nullptr, "file:/no/such/folder/log"));
  hurn_destroy();
  close(STDERR_FILENO);
  hurn_original("nowhere");
  EXPECT_EQ(117, errno);
}

TEST_F(Hurn, FilesArePrivateFewAndCloseOnExec) {
  const auto inherited = [] {
    return std::count_if(fs::directory_iterator("/proc/self/fd"), {}, [](const auto& fd) {
      const int flags = fcntl(std::stoi(fd.path().filename()), F_GETFD);
      return flags >= 0 && (flags & FD_CLOEXEC) == 0;
    });
  };
  const auto open_ones = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
  const auto inherited_before = inherited(), open_before = open_ones();
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
  for (const bool is_left : {false, true}) {
    EXPECT_EQ(open_before + 1, open_ones()) << is_left;
    EXPECT_EQ(inherited_before, inherited()) << is_left;
    hurn_destroy();
  }
}

// The thread that owns the sink waits for the reader of a pipe; it is not in the child.
TEST_F(Hurn, ChildrenWithTheIdOfTheirParentOwnTheSink) {
  tirn::test::PrivateRoot root;
  TIRN_NEEDS_PRIVATE_ROOT(root);
  const string pipe = "file:" + folder_.path("pipe");
  ASSERT_EQ(0, mkfifo(pipe.c_str() + 5, 0600));
  const auto outer = [&] {
    std::thread([&] { hurn_init(nullptr, pipe.c_str()); }).detach();
    tirn::test::wait_until([] {
      const fs::directory_iterator tasks("/proc/thread-self/..");
      return std::any_of(tasks, {}, [](const auto& task) {
        return read_file(task.path() / "syscall").starts_with(std::to_string(SYS_openat) + " ");
      });
    });
    EXPECT_TRUE(tirn::test::run_as_first([this] { use_file(); }));
  };
  const auto child = tirn::test::run_child([&] { return tirn::test::run_as_first(outer) ? 0 : 1; });
  EXPECT_TRUE(child.exited()) << child;
}

TEST_F(Hurn, LimitsHoldBackAndTell) {
  use_file();
  const auto write = [&](uint32_t module, int count) {
    for (int i = 0; i < count; i++)
      info(module, std::to_string(module) + '/' + std::to_string(i));
  };
  const auto texts = [&] {
    const Texts result = texts_of(log_);
    EXPECT_EQ(0, truncate(log_.c_str(), 0));
    return result;
  };
  ASSERT_EQ(0, hurn_ratelimit_set(7, 2, 300));
  write(7, 5);
  write(8, 1);
  hurn_original("never held back");
  EXPECT_EQ((Texts{"7/0", "7/1", "8/0", "never held back"}), texts());
  usleep(310000);
  write(7, 3);
  EXPECT_EQ((Texts{"3 lines of group 7 suppressed.", "7/0", "7/1"}), texts());

  // A line that the level holds back takes nothing from its module.
  const uint32_t infos = hurn_get_group_id("info");
  ASSERT_EQ(0, hurn_ratelimit_set(7, 2, 60000) + hurn_ratelimit_set(infos, 1, 60000));
  write(7, 4);
  ASSERT_EQ(0, hurn_ratelimit_set(infos, 0, 60000));
  write(7, 3);
  EXPECT_EQ((Texts{"1 lines of group 7 suppressed.", "7/0", "3 lines of group info suppressed.", "7/0"}), texts());

  ASSERT_EQ(0, hurn_ratelimit_set(9, 25, 600000));
  std::thread other(write, 9, 2000);
  write(9, 2000);
  other.join();
  EXPECT_EQ(25u, texts().size());
  ASSERT_EQ(0, hurn_ratelimit_set(9, 0, 0));
  write(9, 1);
  EXPECT_EQ((Texts{"3975 lines of group 9 suppressed.", "9/0"}), texts());

  for (const char* name : {"", "1024", "-1", "+1", " 1", "1 ", "0x1", "4294967296", "Error", "errors"})
    EXPECT_EQ(HURN_NO_GROUP, hurn_get_group_id(name)) << name;
  EXPECT_EQ(-2, hurn_ratelimit_set(1024 + 8, 1, 1) + hurn_ratelimit_set(HURN_NO_GROUP, 1, 1));
}

}  // namespace
