// The server of the loopback service: one listener, and one thread with its own buffers for each client.
#include <algorithm>
#include <cerrno>

#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/syscall/stream.h"
#include "tirn/sched.h"
#include "tirn/thread.h"

namespace {

using tirn::Fd;

// A client, and the buffers of its requests. The output buffer has all the bytes that a reply may carry: a handler may
// report as many.
struct Client {
  bool receive(void* bytes, size_t length) const {
    return tirn::receive_whole(connection.get(), bytes, length, tirn::QuickAck::kYes);
  }

  // What the buffer does not hold is thrown away, so that the stream stays in step.
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

  Fd connection;
  tirn::TaggedBlock<uint8_t> input;
  tirn::Mapping output;
};

// Calls the request's handler and turns the header into that of the reply.
void answer(Client& client, moru_frame_header& header) {
  const auto cmd = static_cast<uint32_t>(header.cmd);
  const MORU_SYSCALL_ENTRY* const entry = MORU_FindSysCall(cmd);
  if (entry == nullptr || entry->pfnSysCall == nullptr) {
    header.len = 0;
    header.ret = tirn::kFail;
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

// False when the connection is to end.
bool serve_request(Client& client) {
  moru_frame_header header;
  if (!client.receive(&header, sizeof header) || !client.receive_input(header.len)) {
    return false;
  }
  answer(client, header);
  if (header.len > MORU_SYSCALL_OUTPUT_MAX) {
    TIRN_ERROR("hdr.cmd=%x, hdr.len = %lu\n", static_cast<unsigned>(header.cmd), header.len);
    return false;
  }
  return tirn::send_frame(client.connection.get(), header, client.output.get());
}

void* serve_client(void* argument) {
  Client client{Fd(static_cast<int>(reinterpret_cast<intptr_t>(argument))),
                tirn::tagged_block<uint8_t>(MORU_SYSCALL_INPUT_MAX), tirn::Mapping(MORU_SYSCALL_OUTPUT_MAX)};
  if (client.input == nullptr || !client.output) {
    TIRN_ERROR("Param error: null pointer.\n");
    return nullptr;
  }
  kesa_set_process_name("syscall_do_thr");
  while (serve_request(client)) {
  }
  return nullptr;
}

// The listening socket, or none after its line in the log.
Fd open_service() {
  Fd service(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!service) {
    TIRN_ERROR("Create socket %d fail!.\n", service.get());
    return {};
  }
  tirn::enable(service.get(), SOL_SOCKET, SO_REUSEADDR);
  const sockaddr_in address = tirn::service_address();
  if (bind(service.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    TIRN_ERROR("Bind socket %d fail!， error is %d.\n", service.get(), errno);
    return {};
  }
  constexpr int kBacklog = 10;
  if (listen(service.get(), kBacklog) != 0) {
    TIRN_ERROR("Listen socket %d fail!, error is %d.\n", service.get(), errno);
    return {};
  }
  return service;
}

void* accept_clients(void*) {
  const Fd service = open_service();
  if (!service) {
    return nullptr;
  }
  kesa_set_process_name("syscall_thr");
  for (;;) {
    Fd client(accept4(service.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client) {
      if (errno == EINTR) {
        continue;
      }
      TIRN_ERROR("accept errno = %d\n", errno);
      return nullptr;
    }
    tirn::enable(client.get(), IPPROTO_TCP, TCP_NODELAY);
    const int result = create_thread_nopreempt_raw(
        serve_client, reinterpret_cast<void*>(static_cast<intptr_t>(client.get())), nullptr);
    if (result != 0) {
      TIRN_ERROR("creat syscall thrd failed, ret = %d.\n", result);
      return nullptr;
    }
    client.release();  // its thread closes it
  }
}

}  // namespace

int MORU_PrivateSysCallIntfInit() {
  const int result = create_thread_nopreempt_raw(accept_clients, nullptr, nullptr);
  if (result != 0) {
    TIRN_ERROR("creat syscall thrd failed, ret = %d.\n", result);
    return tirn::kFail;
  }
  return tirn::kOk;
}

void MORU_PrivateSysCallIntfExit() {}
