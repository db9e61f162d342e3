#include "tirn/fileops.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "support/log_capture.h"
#include "support/temp_folder.h"

using namespace tirn::test;

TEST(CheckedCalls, NullPointersAreLoggedAndRefused) {
  LogCapture log;
  const long results[] = {kesa_access(nullptr, F_OK), kesa_open(nullptr, O_RDONLY, 0), kesa_read(0, nullptr, 0),
                          kesa_write(1, nullptr, 0),  kesa_stat(nullptr, nullptr),     kesa_statfs(nullptr, nullptr),
                          kesa_statfs("/", nullptr)};
  for (const long& result : results) {
    EXPECT_EQ(result, -1) << &result - results;
  }
  const std::string file = "pFilePath is NULL.", path = "pPath is NULL.", buffer = "pBuf is NULL.";
  EXPECT_EQ(log.texts(), (std::vector<std::string>{file, file, buffer, buffer, path, path, buffer}));
}

// The file under one descriptor number changes between the calls of one thread. Nothing that was read ahead may be
// kept.
TEST(ReadLine, SeesTheFileAsItIsNow) {
  const TempFolder folder;
  const std::string path = folder.write_file("a", "one\ntwo\nthree\n");
  char line[64];
  int fd = open(path.c_str(), O_RDWR);
  ASSERT_STREQ(kesa_readline(fd, line, sizeof line), "one\n");
  ASSERT_EQ(pwrite(fd, "TWO", 3, 4), 3);
  EXPECT_STREQ(kesa_readline(fd, line, sizeof line), "TWO\n");
  kesa_lseek(fd, 0, SEEK_END);
  EXPECT_EQ(kesa_readline(fd, line, sizeof line), nullptr);
  ASSERT_EQ(write(fd, "four", 4), 4);
  EXPECT_EQ(kesa_lseek(fd, -4, SEEK_CUR), 14);
  EXPECT_STREQ(kesa_readline(fd, line, sizeof line), "four");
  EXPECT_EQ(kesa_readline(fd, line, 1), nullptr);
  EXPECT_EQ(kesa_readline(fd, nullptr, 9), nullptr);
  line[0] = 'x';
  EXPECT_EQ(kesa_readline(fd, line, 0), nullptr);
  EXPECT_EQ(line[0], 'x');
  // A socket with the same number: no byte beyond the text line is read, and errno is unchanged.
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  fd = dup2(ends[0], fd);
  ASSERT_EQ(write(ends[1], "a\nb\n", 4), 4);
  errno = 0;
  EXPECT_STREQ(kesa_readline(fd, line, sizeof line), "a\n");
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(read(ends[0], line, sizeof line), 2);
  // A file that the kernel generates on read: the text lines are those that fgets of the C library returns.
  fd = dup2(open("/proc/self/status", O_RDONLY), fd);
  FILE* const stream = fopen("/proc/self/status", "r");
  char expected[4096];
  for (int i = 0; i < 10 && fgets(expected, sizeof expected, stream) != nullptr; ++i) {
    EXPECT_STREQ(kesa_readline(fd, line, sizeof line), std::string(expected).substr(0, 63).c_str());
  }
  fclose(stream);
  EXPECT_EQ(kesa_readline(-1, line, sizeof line), nullptr);
  EXPECT_EQ(errno, EBADF);
}
