// Receives error reports of file systems over netlink, and makes pseudo-random bytes.
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "libtirn/base/bounds.h"
#include "libtirn/base/cancellation.h"
#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"
#include "libtirn/base/private_call.h"
#include "tirn/fs.h"

using namespace tirn;

namespace {

struct ReportMessage {
  nlmsghdr head;
  uint32_t payload[MORU_NETLINK_EXT3_PAYLOAD / sizeof(uint32_t)];
};
static_assert(sizeof(ReportMessage) == 72);

// Receives one message. The bytes that a short message lacks are 0.
ssize_t receive(int fd, ReportMessage& message) {
  message = {};
  iovec piece{&message, sizeof message};
  msghdr header{};
  header.msg_iov = &piece;
  header.msg_iovlen = 1;
  errno = 0;
  return recvmsg(fd, &header, 0);
}

// Passes reports to the handler until the descriptor is closed or receiving fails.
int listen_on(int fd, ReportMessage& message, moru_netlink_handler handler) {
  for (;;) {
    if (receive(fd, message) < 1) {
      return errno == EBADF ? MORU_NETLINK_CLOSED : MORU_NETLINK_RECEIVE;
    }
    if (message.payload[0] == MORU_NETLINK_EXT3_MAGIC) {
      handler(message.payload);
    }
  }
}

uint32_t present_time() {
  uint64_t seconds = 0;
  return private_call(PrivateCommand::kTime, &seconds) == 0 ? static_cast<uint32_t>(seconds) : 0;
}

}  // namespace

int MORU_Netlink_ext3_create() {
  const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, MORU_NETLINK_EXT3_PROTOCOL);
  if (fd < 0) {
    TIRN_ERROR("MORU_Netlink_ext3_create failed, sockfd:%d, errno:%d,%s.", fd, errno, strerrordesc_np(errno));
    return -1;
  }
  return fd;
}

int MORU_Netlink_ext3_listen(int fd, int pid, moru_netlink_handler handler) {
  if (fd < 0) {
    return MORU_NETLINK_BAD_FD;
  }
  if (pid < 1) {
    return MORU_NETLINK_BAD_PID;
  }
  if (handler == nullptr) {
    return MORU_NETLINK_NO_HANDLER;
  }
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_pid = static_cast<uint32_t>(pid);
  address.nl_groups = 1;
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return MORU_NETLINK_BIND;
  }
  auto message = tagged_block<ReportMessage>();
  if (message == nullptr) {
    return MORU_NETLINK_NO_MEMORY;
  }
  int result = MORU_NETLINK_CLOSED;
  run_with_cleanup([&] { result = listen_on(fd, *message, handler); }, [&message] { message.reset(); });
  return result;
}

void MORU_Netlink_ext3_release(int fd) {
  if (fd >= 0) {
    const NoCancellation guard;  // a cancelled thread would leave the descriptor open
    close(fd);
  }
}

void get_random_bytes(void* buf, int len) {
  if (buf == nullptr) {
    return;
  }
  unsigned seed = present_time();
  auto* at = static_cast<uint8_t*>(buf);
  for (int left = len; left > 0;) {
    const int number = rand_r(&seed);
    const int piece = std::min(left, static_cast<int>(sizeof number));
    if (memcpy_s(at, static_cast<size_t>(left), &number, static_cast<size_t>(piece)) != 0) {
      TIRN_ERROR("memcpy_sp failed.");
    }
    at += piece;
    left -= piece;
  }
}
