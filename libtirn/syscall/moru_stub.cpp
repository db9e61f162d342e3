// The server of the loopback service: one listener, and one thread with its own buffers for each client.
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <optional>
#include <utility>

#include "libtirn/base/cancellation.h"
#include "libtirn/base/fork.h"
#include "libtirn/base/guard.h"
#include "libtirn/base/list.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/syscall/stream.h"
#include "tirn/sched.h"
#include "tirn/thread.h"

using namespace tirn;

namespace {

// The sockets of the service. A forked child closes its copies: otherwise the port would stay taken and clients would
// wait for a server that has ended.
pthread_mutex_t g_sockets_mutex = PTHREAD_MUTEX_INITIALIZER;
kesa_list_head g_sockets{&g_sockets, &g_sockets};

class ServiceSocket {
 public:
  // Opens the socket by `open` and lists it in one step, so that no fork comes between the two.
  template <typename Open>
  explicit ServiceSocket(Open open) {
    g_fork_steps.follow();
    const MutexLock lock(g_sockets_mutex);
    fd_ = Fd(open());
    list::push_back(&g_sockets, &link_);
  }
  ServiceSocket(const ServiceSocket&) = delete;
  ServiceSocket& operator=(const ServiceSocket&) = delete;
  ~ServiceSocket() {
    const MutexLock lock(g_sockets_mutex);
    list::remove(&link_);
    fd_ = Fd();
  }

  int get() const { return fd_.get(); }

  // Makes the calling thread the one that uses the socket.
  void adopt() {
    const MutexLock lock(g_sockets_mutex);
    thread_ = pthread_self();
  }

 private:
  static void hold_list(ForkSteps&) { pthread_mutex_lock(&g_sockets_mutex); }
  static void free_list(ForkSteps&) { pthread_mutex_unlock(&g_sockets_mutex); }
  static void leave_all(ForkSteps&) {
    kesa_list_head* link = g_sockets.next;
    list::init(&g_sockets);  // the other links belong to threads that are gone
    while (link != &g_sockets) {
      const auto* const one = reinterpret_cast<ServiceSocket*>(link);
      const bool is_used_here = one->thread_ == pthread_self();
      kesa_list_head* const next = link->next;
      leave_to_parent(one->get(), is_used_here);
      if (is_used_here) {
        list::push_back(&g_sockets, link);
      }
      link = next;
    }
    pthread_mutex_unlock(&g_sockets_mutex);
  }
  static ForkSteps g_fork_steps;

  kesa_list_head link_;  // first, so that its address is that of the socket
  pthread_t thread_ = pthread_self();
  Fd fd_;
};
constinit ForkSteps ServiceSocket::g_fork_steps(leave_all, hold_list, free_list);

// A client, and the buffers of its requests. The output buffer is as large as the largest reply, because a handler
// may report that many bytes.
struct Client {
  explicit Client(ServiceSocket* accepted)
      : connection(accepted), input(tagged_block<uint8_t>(MORU_SYSCALL_INPUT_MAX)), output(MORU_SYSCALL_OUTPUT_MAX) {}

  bool receive(void* bytes, size_t length) const {
    return receive_whole(connection->get(), bytes, length, QuickAck::kYes);
  }

  // Discards what does not fit in the buffer, so that the stream stays in step.
  bool receive_input(uint64_t length) const {
    const auto kept = std::min<uint64_t>(length, MORU_SYSCALL_INPUT_MAX);
    if (!receive(input.get(), kept)) {
      return false;
    }
    for (uint64_t left = length - kept; left > 0;) {
      uint8_t scrap[4096];
      const auto piece = std::min<uint64_t>(left, sizeof scrap);
      if (!receive(scrap, piece)) {
        return false;
      }
      left -= piece;
    }
    return true;
  }

  const std::unique_ptr<ServiceSocket> connection;
  TaggedBlock<uint8_t> input;
  Mapping output;
};

// Calls the handler of the request and turns its header into that of the reply.
void answer(Client& client, moru_frame_header& header) {
  const auto cmd = static_cast<uint32_t>(header.cmd);
  const MORU_SYSCALL_ENTRY* const entry = MORU_FindSysCall(cmd);
  if (entry == nullptr || entry->pfnSysCall == nullptr) {
    header.len = 0;
    header.ret = kFail;
    return;
  }
  MORU_SYSCALL_PARAM param{};
  param.uiInBufLen = static_cast<uint32_t>(std::min<uint64_t>(header.len, MORU_SYSCALL_INPUT_MAX));
  param.uiOutBufLen = static_cast<uint32_t>(std::min<uint64_t>(header.outlen, MORU_SYSCALL_OUTPUT_MAX));
  param.pvInBuf = client.input.get();
  param.pvOutBuf = client.output.get();
  header.ret = entry->pfnSysCall(cmd, &param);
  header.len = param.uiOutLen;
}

// Serves one request. Returns false if the connection has to end.
bool serve_request(Client& client) {
  moru_frame_header header;
  if (!client.receive(&header, sizeof header) || !client.receive_input(header.len)) {
    return false;
  }
  answer(client, header);
  if (header.len > MORU_SYSCALL_OUTPUT_MAX) {
    TIRN_ERROR_AS("serve_request", "hdr.cmd=%x, hdr.len = %lu\n", static_cast<unsigned>(header.cmd), header.len);
    return false;
  }
  return send_frame(client.connection->get(), header, client.output.get());
}

// Logs under the name of the connection's thread function.
void serve_requests(Client& client) {
  if (client.input == nullptr || !client.output) {
    return TIRN_ERROR_AS("serve_client", "Param error: null pointer.\n");
  }
  client.connection->adopt();
  kesa_set_process_name("syscall_do_thr");
  while (serve_request(client)) {
  }
}

// The client is released also if a handler ends the thread.
void* serve_client(void* argument) {
  std::optional<Client> client;
  run_with_cleanup([&] { serve_requests(client.emplace(static_cast<ServiceSocket*>(argument))); },
                   [&client] { client.reset(); });
  return nullptr;
}

// Binds the socket and listens on it. Returns false, after a log line, if that fails.
bool open_service(const ServiceSocket& service) {
  if (service.get() < 0) {
    return TIRN_ERROR_AS("open_service", "Create socket %d fail!.\n", service.get()), false;
  }
  enable(service.get(), SOL_SOCKET, SO_REUSEADDR);
  const sockaddr_in address = service_address();
  if (bind(service.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return TIRN_ERROR_AS("open_service", "Bind socket %d fail!， error is %d.\n", service.get(), errno), false;
  }
  constexpr int kBacklog = 10;
  if (listen(service.get(), kBacklog) != 0) {
    return TIRN_ERROR_AS("open_service", "Listen socket %d fail!, error is %d.\n", service.get(), errno), false;
  }
  return true;
}

// Waits for a client and accepts it. Returns false if the listener has to end. The waiting is left to poll, because a
// fork waits while a socket is being accepted.
bool accept_client(const ServiceSocket& service) {
  constexpr char kFunction[] = "accept_clients";
  pollfd ready{service.get(), POLLIN, 0};
  poll(&ready, 1, -1);
  int error = ENOMEM;
  std::unique_ptr<ServiceSocket> client(new (std::nothrow) ServiceSocket([&service, &error] {
    const int fd = accept4(service.get(), nullptr, nullptr, SOCK_CLOEXEC);
    error = errno;
    return fd;
  }));
  if (client == nullptr || client->get() < 0) {
    if (error == EINTR || error == EAGAIN) {
      return true;
    }
    return TIRN_ERROR_AS(kFunction, "accept errno = %d\n", error), false;
  }
  enable(client->get(), IPPROTO_TCP, TCP_NODELAY);
  const int result = create_thread_nopreempt_raw(serve_client, client.get(), nullptr);
  if (result != 0) {
    return TIRN_ERROR_AS(kFunction, "creat syscall thrd failed, ret = %d.\n", result), false;
  }
  (void)client.release();  // the client's thread deletes it
  return true;
}

void* accept_clients(void*) {
  const NoCancellation guard;  // held throughout: nobody waits for this thread, so nobody has to cancel it
  const ServiceSocket service([] { return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); });
  if (!open_service(service)) {
    return nullptr;
  }
  kesa_set_process_name("syscall_thr");
  while (accept_client(service)) {
  }
  return nullptr;
}

}  // namespace

int MORU_PrivateSysCallIntfInit() {
  const int result = create_thread_nopreempt_raw(accept_clients, nullptr, nullptr);
  if (result != 0) {
    return TIRN_ERROR("creat syscall thrd failed, ret = %d.\n", result), kFail;
  }
  return kOk;
}

void MORU_PrivateSysCallIntfExit() {}
