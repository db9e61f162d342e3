// The client of the loopback service: one connection for all threads of a process.
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "libtirn/base/cancellation.h"
#include "libtirn/base/fork.h"
#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/syscall/stream.h"

using namespace tirn;

namespace {

// Also tested outside the mutex, so two first callers may both connect. The later connection wins, and the other one
// stays open.
constinit std::atomic<int> g_connection{-1};
pthread_mutex_t g_turn = PTHREAD_MUTEX_INITIALIZER;
constinit std::atomic<pthread_t> g_turn_holder{0};

void connect_anew(ForkSteps&) {
  const bool is_calling = g_turn_holder.load(std::memory_order_relaxed) == pthread_self();
  const int shared = g_connection.exchange(-1, std::memory_order_relaxed);
  if (shared >= 0) {
    leave_to_parent(shared, is_calling);
  }
  if (!is_calling) {
    g_turn = PTHREAD_MUTEX_INITIALIZER;
  }
}
constinit ForkSteps g_fork_steps(connect_anew);

// Connects for all threads of the process. `socket_fd` owns the socket until it is connected, and after a failure.
void init_syscall_socket(Fd& socket_fd) {
  socket_fd = Fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket_fd) {
    return TIRN_ERROR_AS("init_syscall_socket", "errno = %d\n", errno);
  }
  const sockaddr_in address = service_address();
  if (connect(socket_fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return TIRN_ERROR_AS("init_syscall_socket", "errno = %d\n", errno);
  }
  g_connection.store(socket_fd.release(), std::memory_order_release);  // pairs with the acquire in Call::take_turn
}

// One call. It uses the same connection from its first send to its last receive, even if other threads connect
// meanwhile. A failure closes the connection for this call and for later ones; this call's further steps fail.
class Call {
 public:
  Call() = default;
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  uint32_t run(uint32_t cmd, MORU_SYSCALL_PARAM& param) {
    if (g_connection.load(std::memory_order_relaxed) < 0) {
      init_syscall_socket(connecting_);
      if (g_connection.load(std::memory_order_relaxed) < 0) {
        return kFailU32;
      }
    }
    take_turn();
    const uint32_t result = exchange(cmd, param);
    is_in_step_ = true;
    return result;
  }

  // Gives back what the call holds. If the thread was cancelled in the call, an answer may still come, so the
  // connection is dropped: it cannot serve the next call.
  void end() {
    const Fd closed(std::move(connecting_));
    if (!has_turn_) {
      return;
    }
    if (!is_in_step_) {
      drop();
    }
    g_turn_holder.store(0, std::memory_order_relaxed);
    pthread_mutex_unlock(&g_turn);
  }

 private:
  void take_turn() {
    has_turn_ = pthread_mutex_lock(&g_turn) == 0;
    g_turn_holder.store(has_turn_ ? pthread_self() : 0, std::memory_order_relaxed);
    fd_ = g_connection.load(std::memory_order_acquire);
  }

  uint32_t exchange(uint32_t cmd, MORU_SYSCALL_PARAM& param) {
    moru_frame_header header{cmd, param.uiInBufLen, param.uiOutBufLen, 0};
    if (!send_all(header, param.pvInBuf)) {
      return TIRN_ERROR_AS("MORU_SysCall", "send_all fail\n"), kFailU32;
    }
    // The result is ignored: if the connection breaks here, the header stays as it was sent, and a request without
    // input counts as success. The connection is dropped all the same.
    recv_all(&header, sizeof header);
    if (header.len == 0) {
      return static_cast<uint32_t>(header.ret);
    }
    if (header.len > param.uiOutBufLen) {
      TIRN_ERROR_AS("MORU_SysCall", "syscall_user: buffer length too small, hdr.len=%d uiOutBufLen=%u",
                    static_cast<int>(header.len), param.uiOutBufLen);
      clear_all(header.len);
      return kFailU32;
    }
    if (!recv_all(param.pvOutBuf, header.len)) {
      return kFailU32;
    }
    param.uiOutBufLen = static_cast<uint32_t>(header.len);
    return static_cast<uint32_t>(header.ret);
  }

  bool send_all(moru_frame_header& header, void* input) {
    if (send_frame(fd_, header, input)) {
      return true;
    }
    TIRN_ERROR_AS("send_all", "errno = %d\n", errno);
    drop();
    return false;
  }

  bool recv_all(void* bytes, size_t length) { return receive(bytes, length, __func__); }

  // Discards a reply, so that the stream stays in step.
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

  bool receive(void* bytes, size_t length, const char* function) {
    errno = 0;  // it stays 0 if the peer has closed the connection
    if (receive_whole(fd_, bytes, length, QuickAck::kNo)) {
      return true;
    }
    TIRN_ERROR_AS(function, "recv error, err=%d, buf=%p, len=%d", errno, bytes, static_cast<int>(length));
    drop();
    return false;
  }

  void drop() {
    int ours = fd_;
    g_connection.compare_exchange_strong(ours, -1, std::memory_order_relaxed);
    const Fd closed(std::exchange(fd_, -1));
  }

  Fd connecting_;
  bool has_turn_ = false;
  bool is_in_step_ = false;
  int fd_ = -1;
};

}  // namespace

uint32_t MORU_SysCall(uint32_t cmd, MORU_SYSCALL_PARAM* param) {
  if (param == nullptr) {
    return kFailU32;
  }
  g_fork_steps.follow();
  uint32_t result = kFailU32;
  Call call;
  run_with_cleanup([&] { result = call.run(cmd, *param); }, [&call] { call.end(); });
  return result;
}
