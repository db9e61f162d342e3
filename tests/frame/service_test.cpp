#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <set>

#include "loopback.h"
#include "support/imports.h"

using namespace tirn::test;

namespace {

bool receive_exactly(int fd, void* bytes, size_t length) {
  return recv(fd, bytes, length, MSG_WAITALL) == static_cast<ssize_t>(length);
}

// Sends a frame by hand. Returns whether a reply's header came.
bool exchange(int fd, moru_frame_header request, const std::string& payload, moru_frame_header& reply) {
  std::string frame(reinterpret_cast<const char*>(&request), sizeof request);
  frame += payload;
  return send(fd, frame.data(), frame.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(frame.size()) &&
         receive_exactly(fd, &reply, sizeof reply);
}

// Returns whether the peer closed the connection, as opposed to the socket's time limit passing.
bool is_closed(int fd) {
  char byte;
  const ssize_t received = recv(fd, &byte, 1, 0);
  return received == 0 || (received < 0 && errno == ECONNRESET);
}

}  // namespace

TEST(Service, CallsAndResults) {
  TIRN_NEEDS_SERVER(server);
  EXPECT_EQ(call(kEcho, "hello", 16), std::make_pair(5u, std::string("hello")));
  EXPECT_EQ(call(kNegative, "", 0).first, static_cast<uint32_t>(-5));
  EXPECT_EQ(call(kNegative, "", 9).second.size(), 9u);  // no output: the capacity stays as it was
  EXPECT_EQ(call(kFill, u32_text(MORU_SYSCALL_OUTPUT_MAX), MORU_SYSCALL_OUTPUT_MAX).second,
            std::string(MORU_SYSCALL_OUTPUT_MAX, 0x5A));
  // An unknown command leaves the connection open, whether its group exists or not.
  EXPECT_EQ(call(kGroup << 8 | 99, "x", 4).first, 0xFFFFFFFFu);
  EXPECT_EQ(call(0x1F00, "", 0).first, 0xFFFFFFFFu);
  EXPECT_EQ(call(0xFFFFFFFF, "", 0).first, 0xFFFFFFFFu);
  EXPECT_EQ(call(kEcho, "still", 16).second, "still");
  EXPECT_EQ(log.count("*errno*"), 0u) << log;
  EXPECT_EQ(MORU_SysCall(kEcho, nullptr), 0xFFFFFFFFu);
}

TEST(Service, ReplyThatDoesNotFitLeavesTheStreamInStep) {
  TIRN_NEEDS_SERVER(server);
  for (const uint32_t excess : {1u, 4000u}) {
    log.clear();
    EXPECT_EQ(call(kFill, u32_text(100 + excess), 100).first, 0xFFFFFFFFu);
    const std::string lengths = "hdr.len=" + std::to_string(100 + excess) + " uiOutBufLen=100";
    EXPECT_TRUE(log.has(HURN_ERROR, "MORU_SysCall", "syscall_user: buffer length too small, " + lengths)) << log;
    EXPECT_EQ(call(kEcho, "next", 8).second, "next");
  }
}

TEST(Service, ReplyBeyondTheLimitEndsTheConnection) {
  TIRN_NEEDS_SERVER(server);
  EXPECT_EQ(call(kFill, u32_text(MORU_SYSCALL_OUTPUT_MAX + 1), MORU_SYSCALL_OUTPUT_MAX).first, 0xFFFFFFFFu);
  EXPECT_TRUE(wait_until([&] { return log.count("hdr.cmd=701, hdr.len = 1048577\n") != 0; })) << log;
  EXPECT_TRUE(log.has(HURN_ERROR, "recv_all", "recv error, err=*, buf=0x*, len=32")) << log;
  EXPECT_EQ(call(kEcho, "anew", 8).second, "anew");
}

TEST(Service, ServerThatGoesAway) {
  TIRN_NEEDS_PRIVATE_NETWORK();
  LogCapture log;
  EXPECT_EQ(call(kEcho, "x", 4).first, 0xFFFFFFFFu);
  EXPECT_TRUE(log.has(HURN_ERROR, "init_syscall_socket", "errno = 111\n")) << log;
  Server server;
  ASSERT_TRUE(server.is_up());
  EXPECT_EQ(call(kEcho, "x", 4).second, "x");
  server.end();
  // The header stays as it was sent. Without input and output, that reads as success.
  EXPECT_EQ(call(kNegative, "", 0).first, 0u);
  EXPECT_EQ(call(kNegative, "", 0).first, 0xFFFFFFFFu);
  Server next;
  ASSERT_TRUE(next.is_up());
  EXPECT_EQ(call(kEcho, "y", 4).second, "y");
  next.end();
  log.clear();
  EXPECT_EQ(call(kEcho, "z", 4).first, 0xFFFFFFFFu);
  EXPECT_GE(log.count(HURN_ERROR, "*"), 1u) << log;
}

TEST(Service, CorruptFramesStayWithinTheBuffers) {
  TIRN_NEEDS_SERVER(server);
  moru_frame_header reply;
  const int fd = connect_bare();
  // If the input is longer than the buffer, the handler gets what fits, and the stream stays in step.
  ASSERT_TRUE(exchange(fd, {kEcho, 100000, 1 << 20, 0}, std::string(100000, 'a'), reply));
  EXPECT_EQ(reply.len, MORU_SYSCALL_INPUT_MAX);
  EXPECT_EQ(reply.ret, static_cast<int64_t>(MORU_SYSCALL_INPUT_MAX));
  EXPECT_EQ(reply.outlen, 1u << 20);
  std::string output(reply.len, '\0');
  ASSERT_TRUE(receive_exactly(fd, output.data(), output.size()));
  EXPECT_EQ(output, std::string(MORU_SYSCALL_INPUT_MAX, 'a'));
  // If a client claims a huge buffer, the handler gets the capacity of the server's buffer.
  ASSERT_TRUE(exchange(fd, {kCapacity, 0, ~0ull, 0}, "", reply));
  EXPECT_EQ(reply.ret, static_cast<int64_t>(MORU_SYSCALL_OUTPUT_MAX));
  EXPECT_EQ(reply.outlen, ~0ull);
  ASSERT_TRUE(exchange(fd, {~0ull, 0, 0, 0}, "", reply));
  EXPECT_EQ(reply.ret, -1);
  // Input with a length of 2^63 is read and thrown away until the client gives up.
  const moru_frame_header endless{kEcho, 1ull << 63, 64, 0};
  ASSERT_EQ(send(fd, &endless, sizeof endless, MSG_NOSIGNAL), static_cast<ssize_t>(sizeof endless));
  const std::string flood(1 << 20, 'b');
  EXPECT_EQ(send(fd, flood.data(), flood.size(), MSG_NOSIGNAL), static_cast<ssize_t>(flood.size()));
  close(fd);
  for (const size_t cut : {size_t{7}, sizeof endless}) {  // clients that end within the header and within the input
    const int dying = connect_bare();
    EXPECT_EQ(send(dying, &endless, cut, MSG_NOSIGNAL), static_cast<ssize_t>(cut));
    shutdown(dying, SHUT_WR);
    EXPECT_TRUE(is_closed(dying));
    close(dying);
  }
  EXPECT_EQ(call(kEcho, "alive", 8).second, "alive");
}

TEST(Service, ThreadsHaveTheirNames) {
  TIRN_NEEDS_SERVER(server);
  EXPECT_EQ(call(kEcho, "x", 4).second, "x");  // now the client's thread exists
  std::set<std::string> names;
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(server.pid()) + "/task")) {
    names.insert(read_file(task.path() / "comm"));
  }
  EXPECT_TRUE(names.contains("syscall_do_thr\n"));
  EXPECT_TRUE(names.contains("syscall_thr\n"));
}

// The next call must not take the reply that a cancelled call did not wait for.
TEST(Service, CancelledCallLeavesTheNextOneItsAnswer) {
  TIRN_NEEDS_SERVER(server);
  EXPECT_EQ(call(kEcho, "x", 4).second, "x");
  const auto call_slowly = [](void*) -> void* {
    pthread_cleanup_push([](void*) { leave_frames(); }, nullptr);
    call(kSlow, "x", 8);
    pthread_cleanup_pop(0);
    return nullptr;
  };
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, nullptr, call_slowly, nullptr), 0);
  usleep(50000);
  pthread_cancel(thread);
  pthread_join(thread, nullptr);
  EXPECT_EQ(call(kEcho, "next", 8).second, "next");
}

TEST(Service, HandlerThatEndsItsThreadEndsItsClient) {
  TIRN_NEEDS_SERVER(server);
  EXPECT_EQ(call(kEnd, "x", 8).first, 0xFFFFFFFFu);
  EXPECT_EQ(call(kEcho, "next", 8).second, "next");
}

// A worker process that outlives its server must hold neither the port nor a client's connection. The emulator leaves
// its own locks locked in a forked child of a threaded process.
TEST(ServiceNative, ForkedWorkerHoldsNoSocket) {
  TIRN_NEEDS_SERVER(server);
  const int idle = connect_bare();
  moru_frame_header reply;
  ASSERT_TRUE(exchange(idle, {kNegative, 0, 0, 0}, "", reply));  // now the server has accepted the connection
  EXPECT_EQ(call(kFork, "x", 4).first, 0u);
  server.end();
  EXPECT_TRUE(is_closed(idle));
  close(idle);
  EXPECT_EQ(call(kEcho, "x", 4).first, 0xFFFFFFFFu);
  Server next;
  ASSERT_TRUE(next.is_up());
  EXPECT_EQ(call(kEcho, "y", 4).second, "y");
}

TEST(Service, HowSocketsAreMadeAndUsed) {
  TIRN_NEEDS_PRIVATE_NETWORK();
  static std::atomic<int> interruptions{3};
  static std::atomic<bool> reuses{false};
  Imports imports(Object::library);
  imports.redirect("socket", [](int domain, int type, int protocol) {
    EXPECT_NE(type & SOCK_CLOEXEC, 0);
    return socket(domain, type, protocol);
  });
  imports.redirect("accept4", [](int fd, sockaddr* address, socklen_t* length, int flags) {
    EXPECT_EQ(flags, SOCK_CLOEXEC);
    return interruptions-- > 0 ? (errno = EINTR, -1) : accept4(fd, address, length, flags);
  });
  imports.redirect("setsockopt", [](int fd, int level, int option, const void* value, socklen_t length) {
    reuses = reuses || (level == SOL_SOCKET && option == SO_REUSEADDR);
    return setsockopt(fd, level, option, value, length);
  });
  imports.redirect("sendmsg", [](int fd, const msghdr* message, int flags) {
    EXPECT_EQ(flags, MSG_NOSIGNAL);
    return sendmsg(fd, message, flags);
  });
  const MORU_SYSCALL_ENTRY entry{kEcho, MORU_SYSCALL_DIRECT, serve_echo};
  ASSERT_EQ(MORU_PrivateSysCallInit(), 0);
  ASSERT_EQ(MORU_RegSysCall(kGroup, &entry, 1), 0);
  EXPECT_TRUE(wait_until([] { return call(kEcho, "x", 4).second == "x"; }));
  EXPECT_TRUE(reuses);
  EXPECT_LT(interruptions, 0);
}
