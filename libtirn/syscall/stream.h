// The byte stream under the frames of the loopback service, for both of its ends.
#ifndef TIRN_SYSCALL_STREAM_H
#define TIRN_SYSCALL_STREAM_H

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

#include "tirn/syscall.h"

namespace tirn {

static_assert(sizeof(moru_frame_header) == 32 && offsetof(moru_frame_header, ret) == 24);

inline sockaddr_in service_address() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(MORU_SYSCALL_PORT);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

inline void enable(int fd, int level, int option) {
  const int on = 1;
  setsockopt(fd, level, option, &on, sizeof on);
}

// True when all is out. `more`: MSG_MORE where further bytes follow at once, so that they leave in one segment.
inline bool send_whole(int fd, const void* bytes, size_t length, int more = 0) {
  const auto* at = static_cast<const uint8_t*>(bytes);
  while (length > 0) {
    const ssize_t sent = send(fd, at, length, MSG_NOSIGNAL | more);
    if (sent < 1) {
      return false;
    }
    at += sent;
    length -= static_cast<size_t>(sent);
  }
  return true;
}

// Whether each recv is followed by TCP_QUICKACK, which the kernel resets on its own: a server's small requests and
// replies then never wait for a delayed acknowledgement.
enum class QuickAck { kNo, kYes };

// True when all is in; a peer that has closed counts as a failure.
inline bool receive_whole(int fd, void* bytes, size_t length, QuickAck quick_ack) {
  auto* at = static_cast<uint8_t*>(bytes);
  while (length > 0) {
    const ssize_t received = recv(fd, at, length, 0);
    if (received < 1) {
      return false;
    }
    if (quick_ack == QuickAck::kYes) {
      enable(fd, IPPROTO_TCP, TCP_QUICKACK);
    }
    at += received;
    length -= static_cast<size_t>(received);
  }
  return true;
}

}  // namespace tirn

#endif
