// Measures a private call through the loopback service, beside a bare echo of the same bytes over loopback TCP.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "support/bench.h"
#include "support/machine.h"
#include "tirn/syscall.h"

namespace tirn::bench {
namespace {

constexpr size_t kPayload = 64;
constexpr size_t kHeader = sizeof(moru_frame_header);
constexpr size_t kFrame = kHeader + kPayload;
constexpr uint32_t kGroup = 3;
constexpr uint32_t kCommand = kGroup * 256 + 1;
constexpr uint16_t kEchoPort = 5584;
constexpr uint16_t kQuickEchoPort = 5585;

void enable(int fd, int option) {
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, option, &on, sizeof on);
}

sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// Moves this thread to a network of its own, which its children share, so that the service's port is free there.
void leave_network() {
  if (unshare(CLONE_NEWNET) != 0) {
    return;
  }
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  std::strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  ioctl(fd, SIOCSIFFLAGS, &request);
  close(fd);
}

// Returns a connected socket, or -1 after trying for a second.
int connect_to(uint16_t port) {
  for (int tries = 0; tries < 100; ++tries) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
      return fd;
    }
    close(fd);
    usleep(10000);
  }
  return -1;
}

// Returns a listening socket, or -1 if the port is taken.
int listen_on(uint16_t port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in address = loopback(port);
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 && listen(fd, 1) == 0) {
    return fd;
  }
  close(fd);
  return -1;
}

bool is_free(uint16_t port) {
  const int fd = listen_on(port);
  close(fd);
  return fd >= 0;
}

// Returns the input of the call as its output.
int echo_input(uint32_t, MORU_SYSCALL_PARAM* param) {
  std::memcpy(param->pvOutBuf, param->pvInBuf, param->uiInBufLen);
  param->uiOutLen = param->uiInBufLen;
  return 0;
}

void serve_calls() {
  const MORU_SYSCALL_ENTRY entry{kCommand, MORU_SYSCALL_DIRECT, echo_input};
  if (MORU_PrivateSysCallInit() == 0 && MORU_RegSysCall(kGroup, &entry, 1) == 0) {
    for (;;) {
      pause();
    }
  }
}

bool receive(int fd, void* bytes, size_t length) {
  return recv(fd, bytes, length, MSG_WAITALL) == static_cast<ssize_t>(length);
}

bool send_frame(int fd, const void* frame) {
  return send(fd, frame, kFrame, MSG_NOSIGNAL) == static_cast<ssize_t>(kFrame);
}

int accept_on(uint16_t port) {
  const int fd = accept(listen_on(port), nullptr, nullptr);
  enable(fd, TCP_NODELAY);
  return fd;
}

void serve_echo() {
  const int fd = accept_on(kEchoPort);
  char frame[kFrame];
  while (receive(fd, frame, kFrame) && send_frame(fd, frame)) {
  }
}

// Receives as the service does: header and payload separately, each acknowledged at once. This is the lower bound.
void serve_quick_echo() {
  const int fd = accept_on(kQuickEchoPort);
  char frame[kFrame];
  bool open = true;
  while (open) {
    for (const auto& [at, length] : {std::pair{frame, kHeader}, std::pair{frame + kHeader, kPayload}}) {
      open = open && receive(fd, at, length);
      enable(fd, TCP_QUICKACK);
    }
    open = open && send_frame(fd, frame);
  }
}

// A child process that serves until the destructor kills it.
class Server {
 public:
  Server(void (*serve)(), int core) : child_(fork()) {
    if (child_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      pin_to(core);
      serve();
      _exit(1);
    }
  }
  ~Server() {
    if (child_ > 0) {
      kill(child_, SIGKILL);
      waitpid(child_, nullptr, 0);
    }
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

 private:
  pid_t child_;
};

bool call() {
  static char input[kPayload] = {1};
  char output[kPayload] = {};
  MORU_SYSCALL_PARAM param{kPayload, kPayload, 0, input, output};
  return MORU_SysCall(kCommand, &param) == 0 && param.uiOutBufLen == kPayload && output[0] == 1;
}

bool echo(int fd) {
  char frame[kFrame] = {};
  return send_frame(fd, frame) && receive(fd, frame, kFrame);
}

// The servers on `core`, and the client on the first core, which may be the same.
struct Stage {
  explicit Stage(int core)
      : calls(serve_calls, core), echoes(serve_echo, core), quick_echoes(serve_quick_echo, core) {
    pin_to(cores()[0]);
    close(connect_to(MORU_SYSCALL_PORT));
    for (const int fd : {echo_socket, quick_echo_socket}) {
      enable(fd, TCP_NODELAY);
    }
  }
  ~Stage() {
    close(echo_socket);
    close(quick_echo_socket);
    unpin();
  }
  Server calls;
  Server echoes;
  Server quick_echoes;
  int echo_socket = connect_to(kEchoPort);
  int quick_echo_socket = connect_to(kQuickEchoPort);
};
std::optional<Stage> stage;
std::optional<AwakeCores> awake;

std::string set_stage(int server_core) {
  leave_network();
  for (const uint16_t port : {uint16_t{MORU_SYSCALL_PORT}, kEchoPort, kQuickEchoPort}) {
    if (!is_free(port)) {
      return "another process has port " + std::to_string(port) + ", and a network of its own is not permitted";
    }
  }
  stage.emplace(server_core);
  return call() && echo(stage->echo_socket) && echo(stage->quick_echo_socket) ? "" : "the servers do not answer";
}

std::string set_stage_on_one_core() { return set_stage(cores()[0]); }

std::string set_stage_on_two_cores() {
  awake.emplace();
  return set_stage(cores()[1]);
}

void clear_stage() {
  awake.reset();
  stage.reset();
}

template <class Trip>
void trips(uint64_t count, bool& failed, const Trip& trip) {
  for (uint64_t i = 0; i < count; ++i) {
    failed |= !trip();
  }
}

// The server takes the client's core at each call, which counts as a preemption and hides those by other processes.
// So only a failed call spoils a repetition.
template <class Trip>
Measure on_one_core(Trip trip) {
  return [trip](uint64_t count) {
    bool failed = false;
    Sample sample = timed([&] { trips(count, failed, trip); });
    sample.disturbed = failed;
    return sample;
  };
}

// The client gives up its core in each call, which does not spoil a repetition; being preempted does.
template <class Trip>
Measure on_two_cores(Trip trip) {
  return [trip](uint64_t count) {
    bool failed = false;
    const Placement before = placement_now();
    pin_to(cores()[0]);
    Sample sample = timed([&] { trips(count, failed, trip); });
    sample.placement = placement_now();
    pin_to(cores()[0]);
    sample.disturbed |= failed || sample.placement != before;
    return sample;
  };
}

template <class OnCores>
Group group(const char* name, std::string (*set_up)(), OnCores on_cores) {
  return {.name = name,
          .target = 1.15,
          .unit = kMicroseconds,
          .repetition = 8,
          .set_up = set_up,
          .tear_down = clear_stage,
          .ours = {"MORU_SysCall, 64 bytes in and out", on_cores(call)},
          .peers = {{"TCP echo of the same frames", on_cores([] { return echo(stage->echo_socket); })}},
          .shown = {{"echo, two receives, each with TCP_QUICKACK",
                     on_cores([] { return echo(stage->quick_echo_socket); })}}};
}

const Family calls{[] {
  Group same = group("syscall/same_core", set_stage_on_one_core, [](auto trip) { return on_one_core(trip); });
  Group two = group("syscall/two_cores", set_stage_on_two_cores, [](auto trip) { return on_two_cores(trip); });
  two.cores = 2;
  return std::vector<Group>{same, two};
}};

}  // namespace
}  // namespace tirn::bench
