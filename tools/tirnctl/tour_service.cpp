// The stop of the tour about the loopback service.
#include <signal.h>
#include <sys/wait.h>
#include <tirn/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "tour.h"

namespace tirnctl {
namespace {

constexpr uint32_t kGroup = 7;
constexpr uint32_t kReverse = kGroup << 8;

int reverse(uint32_t, MORU_SYSCALL_PARAM* param) {
  const auto* const input = static_cast<const char*>(param->pvInBuf);
  auto* const output = static_cast<char*>(param->pvOutBuf);
  if (param->uiInBufLen > param->uiOutBufLen) {
    return -1;
  }
  for (uint32_t i = 0; i < param->uiInBufLen; ++i) {
    output[i] = input[param->uiInBufLen - 1 - i];
  }
  param->uiOutLen = param->uiInBufLen;
  return static_cast<int>(getpid());
}

int serve(int ready) {
  const MORU_SYSCALL_ENTRY entries[] = {{kReverse, MORU_SYSCALL_DIRECT, reverse}};
  if (MORU_PrivateSysCallInit() != 0 || MORU_RegSysCall(kGroup, entries, 1) != 0) {
    return 1;
  }
  std::fflush(stdout);
  close(ready);
  pause();
  return 0;
}

// Until the server listens, the call fails, which is logged.
uint32_t call(const char* text, char* answer, uint32_t size) {
  MORU_SYSCALL_PARAM param{static_cast<uint32_t>(std::strlen(text)), size, 0, const_cast<char*>(text), answer};
  return MORU_SysCall(kReverse, &param);
}

bool call_often(pid_t server) {
  constexpr int kCalls = 20000;
  char answer[16]{};
  uint32_t result = ~0u;
  for (int tries = 0; tries < 100 && result == ~0u; ++tries) {
    usleep(10000);
    result = call("drawkcab", answer, sizeof answer - 1);
  }
  std::printf("    \"drawkcab\" comes back as \"%s\"; result %u is the server's process id (%d)\n", answer, result,
              server);
  if (result == ~0u) {
    return false;
  }
  const uint64_t start = now();
  int served = 0;
  for (int i = 0; i < kCalls; ++i) {
    served += call("drawkcab", answer, sizeof answer - 1) == static_cast<uint32_t>(server);
  }
  const double seconds = static_cast<double>(now() - start) / 1e9;
  std::printf("    %d calls in %.2f s, %.0f a second\n", served, seconds, served / seconds);
  return served == kCalls;
}

}  // namespace

bool show_service() {
  int ready[2];
  if (pipe(ready) != 0) {
    return false;
  }
  std::fflush(stdout);
  const pid_t server = fork();
  if (server < 0) {
    return false;
  }
  if (server == 0) {
    close(ready[0]);
    _exit(serve(ready[1]));
  }
  close(ready[1]);
  char none;
  [[maybe_unused]] const ssize_t ended = read(ready[0], &none, 1);  // returns when the command is registered
  close(ready[0]);
  const bool served = call_often(server);
  kill(server, SIGTERM);
  waitpid(server, nullptr, 0);
  return served;
}

}  // namespace tirnctl
