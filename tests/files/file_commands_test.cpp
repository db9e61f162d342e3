#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <csignal>

#include "support/child_process.h"
#include "support/fake_tools.h"
#include "support/faults.h"
#include "support/wait_until.h"
#include "tirn/fileops.h"
#include "tirn/str.h"

using namespace tirn::test;

TEST(FileCommands, RunTheirLinesOrSayWhyNot) {
  FakeTools tools;
  for (const std::string tool : {"rm", "cp", "tar", "mv"}) {
    tools.add(tool, tool == "mv" ? 3 : 0);
  }
  const std::string longest(1023, 'p'), too_long(1024, 'p');
  LogCapture log;
  const struct {
    const char* function;
    int result, expected;
    std::string text;  // of the log line; empty if there is none
  } rows[] = {
      {"kesa_cmd_rm", kesa_cmd_rm(longest.c_str()), 0, ""},
      {"kesa_cmd_rm", kesa_cmd_rm("a;b"), KESA_COMMAND_REFUSED, "Execute cmd(rm -rf a;b) Fail(-29)"},
      {"kesa_cmd_cp", kesa_cmd_cp("two words", "to"), 0, ""},
      {"kesa_cmd_cp", kesa_cmd_cp("a", nullptr), -EINVAL, "SrcFile or DestFile is NULL."},
      {"kesa_cmd_cp", kesa_cmd_cp("a", too_long.c_str()), -ENAMETOOLONG,
       "File Path is too Long, pSrcFile: (a), pDestFile: (p*"},
      {"kesa_cmd_mv", kesa_cmd_mv("from", "to"), 0x300, "Execute cmd(mv from to) Fail(768)"},
      {"kesa_cmd_touch", kesa_cmd_touch(nullptr), -EINVAL, "File is NULL."},
      {"kesa_cmd_mkdir", kesa_cmd_mkdir("a&b"), -EINVAL, "Param error: pFile(a&b) is dangerous."},
      {"kesa_cmd_tar", kesa_cmd_tar("f", "d", 7), 0, ""},
      {"kesa_cmd_tar", kesa_cmd_tar("f", nullptr, 1), 0, ""},
      {"kesa_cmd_tar", kesa_cmd_tar("f", nullptr, 0), -EINVAL, "Param is NULL."},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.result, row.expected) << row.function << row.text;
    EXPECT_TRUE(row.text.empty() || log.has(HURN_ERROR, row.function, row.text)) << row.text << log;
  }
  EXPECT_EQ(log.texts().size(), 7u) << log;
  const std::vector<std::string> calls = {"rm -rf " + longest, "cp -af two words to", "mv from to", "tar -xzf f -C d",
                                          "tar -xzf f -C"};
  EXPECT_EQ(tools.calls(), calls);
}

TEST(Copy, TakesWholeFilesAndToleratesFaults) {
  const TempFolder folder;
  const std::string to = folder.path("to");
  for (const size_t size : {1000, 0, 127, 128}) {
    EXPECT_EQ(kesa_copy(folder.write_file("from", std::string(size, '\0')).c_str(), to.c_str()), 0);
    EXPECT_EQ(read_file(to), std::string(size, '\0'));
  }
  struct stat status {};
  EXPECT_EQ(kesa_stat(to.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0600u);
  const auto check = [](long result, const Fault& fault, const LogCapture& lines) {
    const std::string failing = fault.function;
    const bool has_failed = fault.happened && failing != "stat";  // the shell goes on without a stat
    EXPECT_EQ(result, failing == "calloc" ? -ENOMEM : has_failed ? -ECANCELED : 0);
    EXPECT_EQ(lines.texts().size(), has_failed ? 1u : 0u) << lines;
  };
  const std::string from = folder.path("from");
  sweep({.run = [&] { return kesa_copy(from.c_str(), to.c_str()); }, .check = check});
  sweep({.run = [&] { return kesa_cmd_touch(to.c_str()); }, .check = check});
}

TEST(RecordLocks, HoldOffOtherProcesses) {
  const TempFolder folder;
  const int fd = open(folder.write_file("file", "").c_str(), O_RDWR | O_CLOEXEC);
  kesa_lseek(fd, 3, SEEK_SET);  // ranges are counted from the beginning all the same
  const kesa_file_lock written{KESA_FILE_LOCK_TRY_WRITE, 0, 10};
  const kesa_file_lock read{KESA_FILE_LOCK_READ, 20, 1};
  ASSERT_EQ(kesa_lockfile(fd, &written), 0);
  ASSERT_EQ(kesa_lockfile(fd, &read), 0);
  EXPECT_EQ(kesa_lockfile(-1, &read), -1);
  EXPECT_EQ(kesa_unlockfile(-1, &read), -1);
  ChildProcess child([fd] {
    constexpr auto kRead = KESA_FILE_LOCK_TRY_READ, kWrite = KESA_FILE_LOCK_TRY_WRITE;
    const std::pair<kesa_file_lock, int> rows[] = {
        {{kRead, 9, 1}, -1}, {{kWrite, 0, 0}, -1}, {{kWrite, 10, 10}, 0}, {{kRead, 20, 1}, 0}, {{kWrite, 20, 1}, -1}};
    for (const auto& [lock, result] : rows) {
      EXPECT_EQ(kesa_lockfile(fd, &lock), result) << lock.mode << " at " << lock.start;
    }
    // An unknown mode waits for a read lock. Signals interrupt the system call, but do not end the wait.
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    EXPECT_EQ(write(STDOUT_FILENO, ".", 1), 1);
    const kesa_file_lock waiting{99, 0, 5};
    EXPECT_EQ(kesa_lockfile(fd, &waiting), 0);
    return static_cast<int>(write(STDOUT_FILENO, ".", 1));
  });
  EXPECT_TRUE(wait_until([&] { return child.out().size() == 1; }));
  for (int i = 0; i < 20; ++i) {
    child.kill(SIGALRM);
    usleep(1000);
  }
  EXPECT_EQ(child.out().size(), 1u) << "it waits in spite of signals";
  EXPECT_EQ(kesa_unlockfile(fd, &written), 0);
  EXPECT_TRUE(child.wait().exited(1));
}

TEST(ReadDirectory, GivesEveryEntryAsTheSystemDoes) {
  const TempFolder folder;
  folder.write_file(std::string(255, 'n') + "/file", "");
  const auto compare = [](void* ctx, const char* name, int length, int64_t offset, uint64_t inode, unsigned type) {
    const dirent* const entry = readdir(static_cast<DIR*>(ctx));
    EXPECT_TRUE(std::string(name, length) == entry->d_name && offset == entry->d_off) << name;
    EXPECT_TRUE(inode == entry->d_ino && type == entry->d_type) << name;
    return -1;  // asks for an end of the walk, which is ignored
  };
  const auto walk = [&] {
    DIR* const expected = opendir(folder.path().c_str());
    const int result = kesa_readdir_new(folder.path().c_str(), compare, expected);
    EXPECT_EQ(readdir(expected) == nullptr, result == 0);
    return result | closedir(expected);
  };
  sweep({.run = walk,
         .check = [](long result, const Fault& fault, auto&) { EXPECT_EQ(result, fault.happened ? -1 : 0); }});
}

TEST(Loader, RefusesNoHandleAndPassesTheRestOn) {
  EXPECT_EQ(kesa_dlsym(RTLD_DEFAULT, "malloc"), nullptr);  // RTLD_DEFAULT is NULL
  EXPECT_EQ(kesa_dlclose(nullptr), -1);
  void* const program = kesa_dlopen(nullptr, RTLD_NOW);
  EXPECT_EQ(kesa_dlsym(program, "kesa_copy"), reinterpret_cast<void*>(kesa_copy));
  EXPECT_EQ(kesa_dlsym(program, "nobody has this name"), nullptr);
  EXPECT_NE(kesa_dlerror(), nullptr);
  EXPECT_EQ(kesa_dlclose(program), 0);
}
