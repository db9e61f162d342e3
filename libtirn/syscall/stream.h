// The byte stream that carries the frames of the loopback service, for both of its ends.
#ifndef TIRN_SYSCALL_STREAM_H
#define TIRN_SYSCALL_STREAM_H

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
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

// Closes a forked child's copy of a socket, because the child must not share its parent's connections. If the calling
// thread is using the descriptor, a socket that is not connected takes its place, so that the number stays taken.
inline void leave_to_parent(int fd, bool is_used_here) {
  const int unconnected = is_used_here ? socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0) : -1;
  if (unconnected >= 0) {
    dup3(unconnected, fd, O_CLOEXEC);
  }
  close(is_used_here ? unconnected : fd);
}

// Sends the header and its header.len bytes of payload. One call takes both, so that a short frame goes out in one
// segment. Returns whether all bytes were sent.
inline bool send_frame(int fd, moru_frame_header& header, void* payload) {
  iovec pieces[] = {{&header, sizeof header}, {payload, header.len}};
  msghdr message{};
  message.msg_iov = pieces;
  message.msg_iovlen = 2;
  for (size_t left = sizeof header + header.len; left > 0;) {
    const ssize_t sent = sendmsg(fd, &message, MSG_NOSIGNAL);
    if (sent < 1) {
      return false;
    }
    left -= static_cast<size_t>(sent);
    auto gone = static_cast<size_t>(sent);
    for (iovec& piece : pieces) {
      const size_t part = std::min(gone, piece.iov_len);
      piece.iov_base = static_cast<char*>(piece.iov_base) + part;
      piece.iov_len -= part;
      gone -= part;
    }
  }
  return true;
}

// Whether TCP_QUICKACK is set after each recv (the kernel resets it on its own). With it, small requests to a server
// and their replies never wait for a delayed acknowledgement.
enum class QuickAck { kNo, kYes };

// Returns whether all bytes were received. A peer that has closed the connection counts as a failure.
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
