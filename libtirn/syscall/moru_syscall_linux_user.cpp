// The client of the loopback service: one connection for all threads of a process.
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/syscall/stream.h"

namespace {

// Looked at outside the mutex too: two first callers may both connect. The later one wins, and the other's connection
// stays open.
constinit std::atomic<int> g_connection{-1};
pthread_mutex_t g_turn = PTHREAD_MUTEX_INITIALIZER;

// Leaves the connection of all threads in place, or none.
void init_syscall_socket() {
  tirn::Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd) {
    TIRN_ERROR("errno = %d\n", errno);
    return;
  }
  const sockaddr_in address = tirn::service_address();
  if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    TIRN_ERROR("errno = %d\n", errno);
    return;
  }
  g_connection.store(fd.release(), std::memory_order_release);  // with Turn(): who sees it sees it connected
}

// The connection as one call uses it from its first send to its last receive, whatever others connect meanwhile. After
// a failure it is closed, here and for the calls that follow, and each further step of the call fails.
class Turn {
 public:
  Turn() : fd_(g_connection.load(std::memory_order_acquire)) {}

  bool send_all(moru_frame_header& header, void* input) {
    if (tirn::send_frame(fd_, header, input)) {
      return true;
    }
    TIRN_ERROR("errno = %d\n", errno);
    drop();
    return false;
  }

  bool recv_all(void* bytes, size_t length) { return receive(bytes, length, __func__); }

  // Throws a reply away, so that the stream stays in step.
  void clear_all(uint64_t length) {
    uint8_t scrap[16];
    while (length > 0) {
      const auto piece = std::min<uint64_t>(length, sizeof scrap);
      if (!receive(scrap, piece, __func__)) {
        return;
      }
      length -= piece;
    }
  }

 private:
  bool receive(void* bytes, size_t length, const char* function) {
    errno = 0;  // and 0 where the peer has closed
    if (tirn::receive_whole(fd_, bytes, length, tirn::QuickAck::kNo)) {
      return true;
    }
    TIRN_LOG_AS(tirn::kModule, tirn::kError, function, "recv error, err=%d, buf=%p, len=%d", errno, bytes,
                static_cast<int>(length));
    drop();
    return false;
  }

  void drop() {
    int ours = fd_;
    g_connection.compare_exchange_strong(ours, -1, std::memory_order_relaxed);
    const tirn::Fd closed(std::exchange(fd_, -1));
  }

  int fd_;
};

}  // namespace

uint32_t MORU_SysCall(uint32_t cmd, MORU_SYSCALL_PARAM* param) {
  if (param == nullptr) {
    return tirn::kFailU32;
  }
  if (g_connection.load(std::memory_order_relaxed) < 0) {
    init_syscall_socket();
    if (g_connection.load(std::memory_order_relaxed) < 0) {
      return tirn::kFailU32;
    }
  }
  const tirn::MutexLock lock(g_turn);
  Turn turn;
  moru_frame_header header{cmd, param->uiInBufLen, param->uiOutBufLen, 0};
  if (!turn.send_all(header, param->pvInBuf)) {
    TIRN_ERROR("send_all fail\n");
    return tirn::kFailU32;
  }
  // The result is not looked at: if the connection breaks here the header stays as it was sent, and a request without
  // input reads as success. The connection is dropped all the same.
  turn.recv_all(&header, sizeof header);
  if (header.len == 0) {
    return static_cast<uint32_t>(header.ret);
  }
  if (header.len > param->uiOutBufLen) {
    TIRN_ERROR("syscall_user: buffer length too small, hdr.len=%d uiOutBufLen=%u", static_cast<int>(header.len),
               param->uiOutBufLen);
    turn.clear_all(header.len);
    return tirn::kFailU32;
  }
  if (!turn.recv_all(param->pvOutBuf, header.len)) {
    return tirn::kFailU32;
  }
  param->uiOutBufLen = static_cast<uint32_t>(header.len);
  return static_cast<uint32_t>(header.ret);
}
