// A server of private calls in a child process, and helpers for a client that sends frames by hand.
#ifndef TIRN_TEST_LOOPBACK_H
#define TIRN_TEST_LOOPBACK_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "support/child_process.h"
#include "support/log_capture.h"
#include "support/private_root.h"
#include "support/temp_folder.h"
#include "support/thread_end.h"
#include "support/wait_until.h"
#include "tirn/syscall.h"

namespace tirn::test {

enum : uint32_t {
  kGroup = 7,
  kEcho = kGroup << 8,          // the part of the input that fits the client's buffer; result: the input's length
  kFill = kGroup << 8 | 1,      // as many bytes 0x5A as the u32 in the input says; result 0
  kNegative = kGroup << 8 | 2,  // no output; result -5
  kCapacity = kGroup << 8 | 3,  // no output; result: the capacity that the handler gets
  kSlow = kGroup << 8 | 4,      // the text "late", after 300 ms
  kFork = kGroup << 8 | 5,      // forks a worker process that outlives the server; result 0
  kEnd = kGroup << 8 | 6,       // ends the handler's thread
};

inline int serve_echo(uint32_t, MORU_SYSCALL_PARAM* param) {
  param->uiOutLen = std::min(param->uiInBufLen, param->uiOutBufLen);
  std::memcpy(param->pvOutBuf, param->pvInBuf, param->uiOutLen);
  return static_cast<int>(param->uiInBufLen);
}

inline int serve_fill(uint32_t, MORU_SYSCALL_PARAM* param) {
  std::memcpy(&param->uiOutLen, param->pvInBuf, sizeof param->uiOutLen);
  std::memset(param->pvOutBuf, 0x5A, std::min(param->uiOutLen, MORU_SYSCALL_OUTPUT_MAX));
  return 0;
}

inline int serve_negative(uint32_t, MORU_SYSCALL_PARAM*) { return -5; }
inline int serve_capacity(uint32_t, MORU_SYSCALL_PARAM* param) { return static_cast<int>(param->uiOutBufLen); }

inline int serve_slowly(uint32_t, MORU_SYSCALL_PARAM* param) {
  usleep(300000);
  std::memcpy(param->pvOutBuf, "late", param->uiOutLen = 4);
  return 0;
}
inline int serve_fork(uint32_t, MORU_SYSCALL_PARAM*) {
  if (fork() == 0) {
    alarm(30);
    pause();
  }
  return 0;
}
inline int serve_end(uint32_t, MORU_SYSCALL_PARAM*) {
  leave_frames();
  pthread_exit(nullptr);
}

inline int run_server() {
  const MORU_SYSCALL_ENTRY entries[] = {{kEcho, MORU_SYSCALL_DIRECT, serve_echo},
                                        {kFill, MORU_SYSCALL_INDIRECT, serve_fill},
                                        {kNegative, MORU_SYSCALL_DIRECT, serve_negative},
                                        {kCapacity, MORU_SYSCALL_DIRECT, serve_capacity},
                                        {kSlow, MORU_SYSCALL_DIRECT, serve_slowly},
                                        {kFork, MORU_SYSCALL_DIRECT, serve_fork},
                                        {kEnd, MORU_SYSCALL_DIRECT, serve_end}};
  if (MORU_PrivateSysCallInit() != 0 || MORU_RegSysCall(kGroup, entries, 7) != 0) {
    return 1;
  }
  [[maybe_unused]] const ssize_t written =
      write(STDOUT_FILENO, ".", 1);  // the parent waits for this, as the service listens before it has the commands
  pause();
  return 0;
}

// Opens a plain connection to the service. Returns its descriptor, or -1 if nobody listens.
inline int connect_bare() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(MORU_SYSCALL_PORT);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const timeval limit{20, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

class Server {
 public:
  bool is_up() const {
    return wait_until([this] {
      const int fd = connect_bare();
      close(fd);
      return fd >= 0 && !child_.out().empty();
    });
  }
  pid_t pid() const { return child_.pid(); }
  void end() {
    child_.kill(SIGKILL);
    child_.wait();
  }

 private:
  ChildProcess child_{run_server, std::chrono::seconds(150)};
};

// Makes a private call with texts as input and output. Returns the result and the output.
inline std::pair<uint32_t, std::string> call(uint32_t cmd, std::string input, uint32_t capacity) {
  std::string output(capacity, '\0');
  MORU_SYSCALL_PARAM param{static_cast<uint32_t>(input.size()), capacity, 0, input.data(), output.data()};
  const uint32_t result = MORU_SysCall(cmd, &param);
  output.resize(std::min(param.uiOutBufLen, capacity));
  return {result, output};
}

inline std::string u32_text(uint32_t value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

}  // namespace tirn::test

// The log is captured before the server is forked, so that the capture gets the server's log lines too.
#define TIRN_NEEDS_SERVER(server) \
  TIRN_NEEDS_PRIVATE_NETWORK();   \
  tirn::test::LogCapture log;     \
  tirn::test::Server server;      \
  ASSERT_TRUE(server.is_up())

#endif
