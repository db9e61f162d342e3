#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <thread>

#include "support/child_process.h"
#include "support/imports.h"
#include "support/kernel_side.h"
#include "support/log_capture.h"
#include "support/private_root.h"
#include "support/wait_until.h"
#include "tirn/fs.h"

using namespace tirn::test;

namespace {

std::atomic<int> g_reports{0};
uint8_t g_last[MORU_NETLINK_EXT3_PAYLOAD];
std::atomic<int> g_close_in_handler{-1};

void take_report(void* payload) {
  std::memcpy(g_last, payload, sizeof g_last);
  if (g_close_in_handler >= 0) {
    MORU_Netlink_ext3_release(g_close_in_handler.exchange(-1));
  }
  ++g_reports;
}

// Sends a message to the listener's address. Its payload has `length` bytes and begins with `mark`.
void send_report(int fd, uint32_t to, uint32_t mark, size_t length) {
  struct {
    nlmsghdr head;
    uint8_t payload[256];
  } message{};
  std::memset(message.payload, 0xEE, sizeof message.payload);
  std::memcpy(message.payload, &mark, sizeof mark);
  message.head.nlmsg_len = static_cast<uint32_t>(sizeof message.head + length);
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_pid = to;
  EXPECT_EQ(sendto(fd, &message, sizeof message.head + length, 0, reinterpret_cast<const sockaddr*>(&address),
                   sizeof address),
            static_cast<ssize_t>(sizeof message.head + length))
      << strerror(errno);
}

constexpr uint32_t kAddress = 777;

}  // namespace

TEST(FsEvents, ChecksInTheirOrder) {
  EXPECT_EQ(MORU_Netlink_ext3_listen(-1, 0, nullptr), MORU_NETLINK_BAD_FD);
  EXPECT_EQ(MORU_Netlink_ext3_listen(0, 0, nullptr), MORU_NETLINK_BAD_PID);
  EXPECT_EQ(MORU_Netlink_ext3_listen(0, 1, nullptr), MORU_NETLINK_NO_HANDLER);
  const int closed = dup(0);
  close(closed);
  EXPECT_EQ(MORU_Netlink_ext3_listen(closed, 1, take_report), MORU_NETLINK_BIND);
}

// The kernel may not know the protocol. If descriptor 0 is free, the socket gets it, and 0 is as valid as any other.
TEST(FsEvents, SocketIsMadeOrItsErrorIsLoggedAndClosedAgain) {
  LogCapture log;
  Imports imports(Object::library);
  imports.redirect("socket", [](int, int, int) { return errno = EPROTONOSUPPORT, -1; });
  EXPECT_EQ(MORU_Netlink_ext3_create(), -1);
  EXPECT_TRUE(log.has(HURN_ERROR, "MORU_Netlink_ext3_create",
                      "MORU_Netlink_ext3_create failed, sockfd:-1, errno:93,Protocol not supported."))
      << log;
  MORU_Netlink_ext3_release(-1);
  imports.redirect("socket", [](int domain, int type, int protocol) {
    EXPECT_EQ(domain, AF_NETLINK);
    EXPECT_EQ(type, SOCK_RAW | SOCK_CLOEXEC);
    EXPECT_EQ(protocol, MORU_NETLINK_EXT3_PROTOCOL);
    return dup(1);
  });
  EXPECT_TRUE(run_child([] {
                close(0);
                EXPECT_EQ(MORU_Netlink_ext3_create(), 0);
                MORU_Netlink_ext3_release(0);
                return fcntl(0, F_GETFD) == -1 ? 0 : 1;
              }).exited());
}

// The reports travel between two sockets of this process, over another netlink protocol. The emulator does not have
// that protocol.
TEST(FsEventsNative, ReportsReachTheHandlerUntilTheSocketIsClosed) {
  TIRN_NEEDS_PRIVATE_NETWORK();
  const int receiver = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_USERSOCK);
  const int sender = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_USERSOCK);
  ASSERT_GE(receiver, 0);
  int result = 99;
  std::thread listener([&] { result = MORU_Netlink_ext3_listen(receiver, kAddress, take_report); });
  ASSERT_TRUE(wait_until([&] {
    sockaddr_nl bound{};
    socklen_t size = sizeof bound;
    getsockname(receiver, reinterpret_cast<sockaddr*>(&bound), &size);
    return bound.nl_pid == kAddress;
  }));
  send_report(sender, kAddress, 0x12345678, 56);              // not a report
  send_report(sender, kAddress, MORU_NETLINK_EXT3_MAGIC, 3);  // too short to hold the mark
  send_report(sender, kAddress, MORU_NETLINK_EXT3_MAGIC, 56);
  ASSERT_TRUE(wait_until([] { return g_reports == 1; }));
  EXPECT_EQ(g_last[55], 0xEE);
  send_report(sender, kAddress, MORU_NETLINK_EXT3_MAGIC, 8);  // the rest of a short report reads as zeros
  ASSERT_TRUE(wait_until([] { return g_reports == 2; }));
  EXPECT_EQ(g_last[7], 0xEE);
  EXPECT_EQ(g_last[8], 0);
  g_close_in_handler = receiver;
  send_report(sender, kAddress, MORU_NETLINK_EXT3_MAGIC, 200);  // longer than the buffer
  listener.join();
  EXPECT_EQ(g_reports, 3);
  EXPECT_EQ(result, MORU_NETLINK_CLOSED);
  close(sender);
}

TEST(RandomBytes, FillExactlyAndFollowTheSecond) {
  KernelSide kernel;
  kernel.replace(PrivateCommand::kTime, [](uint64_t, uint64_t out, uint64_t, uint64_t, uint64_t) {
    *reinterpret_cast<uint64_t*>(out) = 1700000000;
    return 0L;
  });
  for (const int length : {-1, 0, 3, 8}) {
    std::string bytes(80, '\x7e');
    get_random_bytes(bytes.data(), length);
    const size_t filled = length > 0 ? static_cast<size_t>(length) : 0;
    EXPECT_EQ(bytes.substr(filled), std::string(80 - filled, '\x7e')) << length;
  }
  std::string first(64, '\0'), second(64, '\0');
  get_random_bytes(first.data(), 64);
  get_random_bytes(second.data(), 64);
  EXPECT_EQ(first, second);
  EXPECT_GT(std::set<char>(first.begin(), first.end()).size(), 20u);
  get_random_bytes(nullptr, 4);
  EXPECT_EQ(KernelSide::last_word(PrivateCommand::kTime), 0x17D00000102u);
}
