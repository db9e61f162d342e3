#include "hurn.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <regex.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using std::string;

string read_file(const string& path) {
  std::ifstream in(path);
  return string(std::istreambuf_iterator<char>(in), {});
}

std::vector<string> lines_of(const string& text) {
  std::vector<string> lines;
  for (size_t begin = 0; begin < text.size();) {
    const size_t end = text.find('\n', begin);
    if (end == string::npos) {
      lines.push_back(text.substr(begin) + "<no end>");
      break;
    }
    lines.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return lines;
}

string text_behind_prefix(const string& line) {
  const size_t place = line.rfind(": ");
  return place == string::npos ? line : line.substr(place + 2);
}

bool matches(const string& text, const string& pattern) {
  regex_t compiled;
  if (regcomp(&compiled, ('^' + pattern + '$').c_str(), REG_EXTENDED | REG_NOSUB) != 0)
    return false;
  const bool found = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
  regfree(&compiled);
  return found;
}

// A folder of the test's own, and the log's defaults again at the end.
class Hurn : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/hurn_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name));
    folder_ = name;
    log_ = folder_ + "/log";
  }
  void TearDown() override {
    hurn_destroy();
    std::filesystem::remove_all(folder_);
  }
  void use_file(const string& behind = "") { ASSERT_EQ(0, hurn_init("tester", ("file:" + log_ + behind).c_str())); }
  std::vector<string> log_lines() const { return lines_of(read_file(log_)); }

  string folder_, log_;
};

// What a callback has seen. Static, as a callback has no argument of its own.
std::mutex seen_mutex;
std::vector<string> seen;

void see(const hurn_line* line) {
  const std::lock_guard<std::mutex> guard(seen_mutex);
  EXPECT_EQ('\0', line->text[line->length]);
  seen.push_back(std::to_string(int(line->module)) + ' ' + std::to_string(int(line->level)) + ' ' +
                 (line->file ? line->file : "-") + ' ' + std::to_string(int(line->line)) + ' ' +
                 (line->function ? line->function : "-") + ' ' + string(line->text, line->length));
}

TEST_F(Hurn, LevelsOfModules) {
  for (const uint32_t module : {0u, 381u, 1023u}) {
    EXPECT_EQ(6, hurn_loglevel_get(module));
    for (uint32_t level = 0; level < 300; level++) {
      const bool wanted = level == 3 || level == 4 || level == 6;
      EXPECT_EQ(wanted ? 0 : -1, hurn_level_check(module, level)) << level;
    }
  }
  EXPECT_EQ(-1, hurn_level_check(5, UINT32_MAX));
  EXPECT_EQ(0, hurn_loglevel_set(5, HURN_DEBUG));
  EXPECT_EQ(0, hurn_level_check(5, HURN_DEBUG));
  EXPECT_EQ(-1, hurn_level_check(5, 5));
  EXPECT_EQ(-1, hurn_level_check(4, HURN_DEBUG));
  EXPECT_EQ(0, hurn_loglevel_set(0, HURN_ERROR));
  EXPECT_EQ(-1, hurn_level_check(1024, HURN_WARNING)) << "as module 0";
  EXPECT_EQ(-1, hurn_level_check(UINT32_MAX, HURN_WARNING)) << "as module 0";
  EXPECT_EQ(0, hurn_level_check(1, HURN_WARNING));
  for (const uint32_t level : {0u, 5u, 8u, 38u, UINT32_MAX})
    EXPECT_EQ(-1, hurn_loglevel_set(5, level)) << level;
  EXPECT_EQ(7, hurn_loglevel_get(5));
  EXPECT_EQ(-1, hurn_loglevel_set(1024, HURN_INFO));
  EXPECT_EQ(-1, hurn_loglevel_get(1024));
  EXPECT_EQ(0, hurn_loglevel_set(HURN_ALL_MODULES, HURN_WARNING));
  EXPECT_EQ(4, hurn_loglevel_get(0));
  EXPECT_EQ(4, hurn_loglevel_get(5));
  EXPECT_EQ(4, hurn_loglevel_get(1023));
}

TEST_F(Hurn, ShapeOfLines) {
  use_file();
  hurn(381, HURN_ERROR, "kesa_init", 77, "kesa_Init", 0, "Step %d failed.", 3);
  hurn(381, HURN_DEBUG, "kesa_init", 78, "kesa_Init", 0, "Its level is off, and not asked.\n");
  hurn(381, HURN_INFO, nullptr, 79, nullptr, 0, "%s", "");
  hurn_original("<%d>raw", 12);
  hurn_original("raw with its end\n");
  hurn_original("%s", "");
  const string place = "tester\\[" + std::to_string(getpid()) + "/" + std::to_string(gettid()) + "\\] ";
  const string stamp = "20[0-9]{2}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}Z ";
  const string expected = stamp + place + "error 381 kesa_init:77 kesa_Init: Step 3 failed\\.\n" + stamp + place +
                          "debug 381 kesa_init:78 kesa_Init: Its level is off, and not asked\\.\n" + stamp + place +
                          "info 381 \\?:79 \\?: \n<12>raw\nraw with its end\n\n";
  const string log = read_file(log_);
  EXPECT_TRUE(matches(log, expected)) << log;
  tm told{};
  ASSERT_NE(nullptr, strptime(log.c_str(), "%Y-%m-%dT%H:%M:%S", &told));
  EXPECT_NEAR(double(timegm(&told)), double(time(nullptr)), 5);
}

TEST_F(Hurn, OddLevelsAndFormatsWriteNothing) {
  // Without the attribute the compiler lets such formats pass.
  void (*const line)(uint32_t, uint32_t, const char*, uint32_t, const char*, uint32_t, const char*, ...) = hurn;
  int (*const original)(const char*, ...) = hurn_original;
  use_file();
  for (const uint32_t level : {0u, 1u, 2u, 5u, 8u, 35u, 381u, UINT32_MAX})
    line(3, level, "f", 1, "g", 0, reinterpret_cast<const char*>(uintptr_t{381}));
  line(3, HURN_INFO, "f", 1, "g", 0, nullptr);
  EXPECT_EQ(-1, original(nullptr));
  EXPECT_EQ("", read_file(log_));
}

TEST_F(Hurn, LongLinesAreCutWithAMark) {
  use_file();
  ASSERT_EQ(4095, hurn_original("%s", string(4095, 'a').c_str()));
  ASSERT_EQ(4096, hurn_original("%s", (string(4095, 'b') + '\n').c_str()));
  ASSERT_EQ(4095, hurn_original("%s", string(4096, 'c').c_str()));
  hurn(3, HURN_INFO, string(5000, 'f').c_str(), 1, string(5000, 'g').c_str(), 0, "%s", string(9000, 'd').c_str());
  const string log = read_file(log_);
  const std::vector<string> lines = lines_of(log);
  ASSERT_EQ(4u, lines.size());
  EXPECT_EQ(string(4095, 'a'), lines[0]);
  EXPECT_EQ(string(4095, 'b'), lines[1]);
  EXPECT_EQ(string(4087, 'c') + "...[cut]", lines[2]);
  EXPECT_EQ(4095u, lines[3].size());
  EXPECT_EQ("ddd...[cut]", lines[3].substr(4095 - 11));
}

TEST_F(Hurn, EveryOperationKeepsErrno) {
  use_file(":100:2");
  errno = 117;
  EXPECT_EQ(-1, hurn_init(nullptr, "file:/no/such/folder/log"));
  EXPECT_EQ(117, errno);
  for (int i = 0; i < 9; i++)
    hurn(3, HURN_INFO, "f", 1, "g", 0, "%m, long enough to rotate the file every few lines, errno %d", errno);
  EXPECT_EQ(117, errno);
  hurn_original("%m");
  EXPECT_EQ(117, errno);
  EXPECT_EQ(0, hurn_init(nullptr, "syslog"));
  hurn_original("no such socket, or no such daemon that this hurts");
  EXPECT_EQ(117, errno);
  hurn_destroy();
  close(STDERR_FILENO);
  hurn_original("nowhere");
  EXPECT_EQ(117, errno);
  for (const string& line : log_lines())
    EXPECT_NE(string::npos, line.find(strerror(117))) << "the caller's errno for %m: " << line;
}

TEST_F(Hurn, LinesOfThreadsNeverMix) {
  use_file();
  constexpr int kThreads = 8, kLines = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; i++) {
        const string body(static_cast<size_t>(i % 300), static_cast<char>('a' + t));
        hurn(static_cast<uint32_t>(t), HURN_INFO, "f", 1, "g", 0, "%d %d %s|", t, i, body.c_str());
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  std::set<string> found;
  for (const string& line : log_lines())
    EXPECT_TRUE(found.insert(text_behind_prefix(line)).second) << line;
  EXPECT_EQ(size_t{kThreads} * kLines, found.size());
  for (int t = 0; t < kThreads; t++) {
    for (int i = 0; i < kLines; i++) {
      const string body(static_cast<size_t>(i % 300), static_cast<char>('a' + t));
      EXPECT_TRUE(found.count(std::to_string(t) + ' ' + std::to_string(i) + ' ' + body + '|')) << t << ' ' << i;
    }
  }
}

// Two threads in each of three processes write to one file that is renamed every few dozen lines.
TEST_F(Hurn, RotationLosesAndDoublesNothing) {
  constexpr int kWriters = 6, kLines = 800;
  use_file(":3000:900");
  const auto write_lines = [](int first) {
    std::vector<std::thread> threads;
    for (int writer = first; writer < first + 2; writer++) {
      threads.emplace_back([writer] {
        for (int i = 0; i < kLines; i++)
          hurn(1, HURN_INFO, "f", 1, "g", 0, "%d %d", writer, i);
      });
    }
    for (std::thread& thread : threads)
      thread.join();
  };
  for (int child = 0; child < 2; child++) {
    if (fork() == 0) {
      write_lines(2 + 2 * child);
      _exit(0);
    }
  }
  write_lines(0);
  for (int child = 0; child < 2; child++) {
    int status = -1;
    ASSERT_GT(wait(&status), 0);
    ASSERT_EQ(0, status);
  }
  std::multiset<string> found;
  size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
    files++;
    for (const string& line : lines_of(read_file(entry.path())))
      found.insert(text_behind_prefix(line));
  }
  EXPECT_GT(files, 10u);
  EXPECT_EQ(size_t{kWriters} * kLines, found.size());
  for (int t = 0; t < kWriters; t++) {
    for (int i = 0; i < kLines; i++)
      EXPECT_EQ(1u, found.count(std::to_string(t) + ' ' + std::to_string(i))) << t << ' ' << i;
  }
}

TEST_F(Hurn, RotationKeepsTheNewest) {
  use_file(":10:2");
  for (int i = 0; i < 5; i++)
    hurn_original("line number %d", i);
  EXPECT_EQ("", read_file(log_));
  EXPECT_EQ("line number 4\n", read_file(log_ + ".1"));
  EXPECT_EQ("line number 3\n", read_file(log_ + ".2"));
  EXPECT_FALSE(std::filesystem::exists(log_ + ".3"));

  // Where a file cannot be moved on, none is replaced, and the log goes on in its file.
  std::filesystem::remove(log_ + ".2");
  std::filesystem::create_directory(log_ + ".2");
  hurn_original("line number 5");
  hurn_original("line number 6");
  EXPECT_EQ("line number 4\n", read_file(log_ + ".1"));
  EXPECT_EQ("line number 5\nline number 6\n", read_file(log_));

  // A file that somebody else took away is made anew.
  std::filesystem::remove(log_);
  hurn_original("line number 7");
  hurn_original("line number 8");
  EXPECT_TRUE(std::filesystem::exists(log_));
}

TEST_F(Hurn, MalformedSinksLeaveTheFormerOne) {
  use_file();
  const string bad[] = {"",
                        "stdout",
                        "syslog:",
                        "stderr ",
                        "file",
                        "file:",
                        "file::5",
                        "file:" + folder_,
                        "file:" + log_ + ":",
                        "file:" + log_ + ":0",
                        "file:" + log_ + ":-1",
                        "file:" + log_ + ":1k",
                        "file:" + log_ + ":99999999999999999999",
                        "file:" + log_ + "::3",
                        "file:" + log_ + ":5:",
                        "file:" + log_ + ":5:0",
                        "file:" + log_ + ":5:1000",
                        "file:" + log_ + ":5:3:1",
                        "file:/" + string(5000, 'x'),
                        "file:" + folder_ + "/none/log"};
  for (const string& sink : bad)
    EXPECT_EQ(-1, hurn_init("other", sink.c_str())) << sink;
  hurn(1, HURN_INFO, "f", 1, "g", 0, "still here");
  const std::vector<string> lines = log_lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_NE(string::npos, lines[0].find(" tester[")) << lines[0];
  EXPECT_EQ("still here", text_behind_prefix(lines[0]));
}

TEST_F(Hurn, SinksChangeWhileLinesAreWritten) {
  const string other = folder_ + "/other";
  const int error = dup(STDERR_FILENO);
  const int standard = open((folder_ + "/stderr").c_str(), O_CREAT | O_RDWR | O_APPEND, 0600);
  ASSERT_EQ(STDERR_FILENO, dup2(standard, STDERR_FILENO));
  std::atomic<bool> stop{false};
  int written = 0;
  std::thread writer([&] {
    for (; !stop; written++)
      hurn_original("line");
  });
  for (int i = 0; i < 300; i++) {
    EXPECT_EQ(0, hurn_init("tester", ("file:" + (i % 2 ? log_ : other) + ":500:999").c_str()));
    if (i % 3 == 0)
      hurn_destroy();
    // A descriptor opened just now is never taken for the log's.
    const int stranger = open((folder_ + "/stranger").c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600);
    if (i % 10 == 0)
      usleep(100);
    close(stranger);
  }
  stop = true;
  writer.join();
  dup2(error, STDERR_FILENO);
  EXPECT_EQ("", read_file(folder_ + "/stranger"));
  int found = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
    for (const string& line : lines_of(read_file(entry.path()))) {
      EXPECT_EQ("line", line);
      found++;
    }
  }
  EXPECT_GT(written, 0);
  EXPECT_EQ(written, found);
}

TEST_F(Hurn, RelativeFilesStayWhereTheyWere) {
  const string former = std::filesystem::current_path();
  std::filesystem::current_path(folder_);
  ASSERT_EQ(0, hurn_init(nullptr, "file:log:10"));
  std::filesystem::current_path("/");
  hurn_original("long enough to rotate");
  EXPECT_EQ("long enough to rotate\n", read_file(log_ + ".1"));
  hurn(1, HURN_INFO, "f", 1, "g", 0, "x");
  EXPECT_NE(string::npos, read_file(log_ + ".1").find(string(" ") + program_invocation_short_name + '['));
  std::filesystem::current_path(former);
}

// In the middle of whatever the thread was at, including this library's own writing and rotating.
TEST_F(Hurn, RawLinesFromASignalHandler) {
  use_file(":2000:900");
  static std::atomic<int> raised{0};
  struct sigaction action {};
  action.sa_handler = [](int) { hurn_original("<%d>signal", raised.fetch_add(1)); };
  action.sa_flags = SA_RESTART;
  struct sigaction former {};
  sigaction(SIGUSR1, &action, &former);
  std::atomic<bool> stop{false};
  const pthread_t target = pthread_self();
  std::thread sender([&] {
    while (!stop) {
      pthread_kill(target, SIGUSR1);
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
  });
  int count = 0;
  for (const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
       std::chrono::steady_clock::now() < end; count++)
    hurn(1, HURN_INFO, "f", 1, "g", 0, "plain %d", count);
  stop = true;
  sender.join();
  sigaction(SIGUSR1, &former, nullptr);
  std::multiset<string> plain, raw;
  for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
    for (const string& line : lines_of(read_file(entry.path())))
      (line[0] == '<' ? raw : plain).insert(line[0] == '<' ? line : text_behind_prefix(line));
  }
  EXPECT_GT(raised.load(), 10);
  // The oldest files may have been dropped; what is left is whole, and nothing stands there twice.
  for (const string& line : plain)
    EXPECT_TRUE(plain.count(line) == 1 && matches(line, "plain [0-9]+")) << line;
  for (const string& line : raw)
    EXPECT_TRUE(raw.count(line) == 1 && matches(line, "<[0-9]+>signal")) << line;
  EXPECT_FALSE(plain.empty());
  EXPECT_FALSE(raw.empty());
}

TEST_F(Hurn, GroupsHaveNames) {
  EXPECT_EQ(0u, hurn_get_group_id("0"));
  EXPECT_EQ(1023u, hurn_get_group_id("1023"));
  std::set<uint32_t> ids;
  for (const char* name : {"error", "warning", "info", "debug", "381"}) {
    const uint32_t id = hurn_get_group_id(name);
    EXPECT_TRUE(ids.insert(id).second) << name;
    EXPECT_EQ(0, hurn_ratelimit_set(id, 0, 0)) << name;
  }
  for (const char* name : {"", "1024", "-1", "+1", " 1", "1 ", "0x1", "4294967296", "Error", "errors"})
    EXPECT_EQ(HURN_NO_GROUP, hurn_get_group_id(name)) << name;
  EXPECT_EQ(HURN_NO_GROUP, hurn_get_group_id(nullptr));
  for (const uint32_t group : {1024u, 1024u + 5u, 1024u + 8u, HURN_NO_GROUP})
    EXPECT_EQ(-1, hurn_ratelimit_set(group, 1, 1)) << group;
}

void info(uint32_t module, int number) {
  hurn(module, HURN_INFO, "f", 1, "g", 0, "%u/%d", module, number);
}

TEST_F(Hurn, LimitsHoldBackAndTell) {
  use_file();
  const auto texts = [this] {
    std::vector<string> result;
    for (const string& line : log_lines())
      result.push_back(text_behind_prefix(line));
    EXPECT_EQ(0, truncate(log_.c_str(), 0));
    return result;
  };
  using Lines = std::vector<string>;
  ASSERT_EQ(0, hurn_ratelimit_set(7, 2, 100));
  for (int i = 0; i < 5; i++)
    info(7, i);
  info(8, 0);
  hurn_original("never held back");
  EXPECT_EQ((Lines{"7/0", "7/1", "8/0", "never held back"}), texts());
  usleep(110000);
  info(7, 5);
  info(7, 6);
  info(7, 7);
  EXPECT_EQ((Lines{"3 lines of group 7 suppressed.", "7/5", "7/6"}), texts());

  // Without a limit nothing is held back, and what was is told.
  ASSERT_EQ(0, hurn_ratelimit_set(7, 2, 0));
  for (int i = 0; i < 3; i++)
    info(7, i);
  EXPECT_EQ((Lines{"1 lines of group 7 suppressed.", "7/0", "7/1", "7/2"}), texts());

  // A line that the level holds back takes nothing from its module.
  ASSERT_EQ(0, hurn_ratelimit_set(7, 2, 60000));
  ASSERT_EQ(0, hurn_ratelimit_set(hurn_get_group_id("info"), 1, 60000));
  for (int i = 0; i < 4; i++)
    info(7, i);
  ASSERT_EQ(0, hurn_ratelimit_set(hurn_get_group_id("info"), 0, 60000));
  for (int i = 4; i < 7; i++)
    info(7, i);
  EXPECT_EQ((Lines{"7/0", "3 lines of group info suppressed.", "7/4"}), texts());
}

TEST_F(Hurn, LimitsHoldUnderContention) {
  use_file();
  constexpr int kThreads = 4, kLines = 2000;
  ASSERT_EQ(0, hurn_ratelimit_set(9, 25, 600000));
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([] {
      for (int i = 0; i < kLines; i++)
        info(9, i);
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(25u, log_lines().size());
  ASSERT_EQ(0, hurn_ratelimit_set(9, 0, 0));
  info(9, 0);
  EXPECT_EQ("7975 lines of group 9 suppressed.", text_behind_prefix(log_lines().at(25)));
}

TEST_F(Hurn, CallbackBesideAndInsteadOfTheSink) {
  use_file();
  hurn_content_record record{0, see};
  EXPECT_EQ(-1, hurn_register_content_callback(nullptr));
  ASSERT_EQ(0, hurn_register_content_callback(&record));
  hurn(381, HURN_WARNING, "file", 12, "function", 0, "Text %d.", 1);
  record.flags = HURN_CALLBACK_ONLY;
  hurn_original("raw\n");
  ASSERT_EQ(0, hurn_register_content_callback(&record));
  hurn(1024, HURN_INFO, "file", 13, "function", 0, "%s", string(5000, 'x').c_str());
  hurn_original("only seen");
  // A callback that logs does not see its own lines; they go to the sink even so.
  record.callback = [](const hurn_line* line) {
    see(line);
    hurn_original("from the callback");
  };
  ASSERT_EQ(0, hurn_register_content_callback(&record));
  hurn_original("again");
  record.callback = nullptr;
  ASSERT_EQ(0, hurn_register_content_callback(&record));
  hurn_original("unseen");
  ASSERT_EQ(5u, seen.size());
  EXPECT_EQ("381 4 file 12 function Text 1.", seen[0]);
  EXPECT_EQ("-1 -1 - -1 - raw\n", seen[1]);
  EXPECT_EQ("1024 6 file 13 function xxx", seen[2].substr(0, 27));
  EXPECT_EQ("x...[cut]", seen[2].substr(seen[2].size() - 9));
  EXPECT_EQ("-1 -1 - -1 - only seen", seen[3]);
  EXPECT_EQ("-1 -1 - -1 - again", seen[4]);
  const std::vector<string> lines = log_lines();
  ASSERT_EQ(4u, lines.size());
  EXPECT_EQ("Text 1.", text_behind_prefix(lines[0]));
  EXPECT_EQ("raw", lines[1]);
  EXPECT_EQ("from the callback", lines[2]);
  EXPECT_EQ("unseen", lines[3]);
}

TEST_F(Hurn, SystemLogOrStandardError) {
  const bool root = unshare(CLONE_NEWNS) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0;
  if (!root || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("hurn_test", "/dev", "tmpfs", 0, nullptr) != 0)
    GTEST_SKIP() << "no mount namespace of its own: " << strerror(errno);
  ASSERT_EQ(0, hurn_init("tester", "syslog"));
  testing::internal::CaptureStderr();
  hurn_original("nobody listens");
  EXPECT_EQ("nobody listens\n", testing::internal::GetCapturedStderr());

  const int server = socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, "/dev/log");
  ASSERT_EQ(0, bind(server, reinterpret_cast<sockaddr*>(&address), sizeof address));
  hurn(381, HURN_WARNING, "file", 12, "function", 0, "Text.");
  hurn_original("raw");
  char datagram[5000];
  for (const char* expected : {"<12>tester[%d]: warning 381 file:12 function: Text.", "<11>tester[%d]: raw"}) {
    string whole = expected;
    whole.replace(whole.find("%d"), 2, std::to_string(getpid()));
    const ssize_t length = recv(server, datagram, sizeof datagram, MSG_DONTWAIT);
    ASSERT_GT(length, 0) << expected;
    EXPECT_EQ(whole, string(datagram, static_cast<size_t>(length)));
  }
  close(server);
}

}  // namespace
