#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <vector>

#include "loopback.h"
#include "support/random_seed.h"
#include "sync/together.h"

using namespace tirn::test;

// All clients are in the middle of a call at once. A connection that finds the listener's backlog full waits for a
// second, so the test now and then gives the server time to accept all connections.
TEST(ServiceStress, TwoHundredClientsAtOnce) {
  TIRN_NEEDS_SERVER(server);
  constexpr int kClients = 200, kBurst = 8;
  std::vector<int> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.push_back(connect_bare());
    moru_frame_header header{kNegative, 0, 0, 0};
    if (i % kBurst == 0) {
      ASSERT_EQ(send(clients.back(), &header, sizeof header, MSG_NOSIGNAL), static_cast<ssize_t>(sizeof header)) << i;
      ASSERT_EQ(recv(clients.back(), &header, sizeof header, MSG_WAITALL), static_cast<ssize_t>(sizeof header)) << i;
    }
    header = {kEcho, 4, 4, 0};
    ASSERT_EQ(send(clients.back(), &header, sizeof header, MSG_NOSIGNAL), static_cast<ssize_t>(sizeof header)) << i;
  }
  for (int i = 0; i < kClients; ++i) {
    ASSERT_EQ(send(clients[i], &i, sizeof i, MSG_NOSIGNAL), static_cast<ssize_t>(sizeof i));
  }
  for (int i = kClients - 1; i >= 0; --i) {
    struct {
      moru_frame_header header;
      int payload;
    } reply;
    ASSERT_EQ(recv(clients[i], &reply, 36, MSG_WAITALL), 36) << i;
    EXPECT_EQ(reply.header.ret, 4);
    EXPECT_EQ(reply.payload, i);
    close(clients[i]);
  }
}

// Sends random bytes on connections that end anywhere. The server must still answer a valid call afterwards.
TEST(ServiceStress, RandomFramesNeverTakeTheServerDown) {
  TIRN_NEEDS_SERVER(server);
  std::mt19937_64 random(tirn::test::random_seed());
  for (int round = 0; round < 300; ++round) {
    const int fd = connect_bare();
    ASSERT_GE(fd, 0);
    std::vector<uint64_t> bytes(random() % 375);
    std::generate(bytes.begin(), bytes.end(), std::ref(random));
    if (bytes.size() >= 4 && random() % 2 != 0) {  // an existing command with absurd other fields
      bytes[0] = kEcho + random() % 4;
      bytes[1] %= random() % 2 != 0 ? 2000 : ~uint64_t{0};
    }
    send(fd, bytes.data(), random() % (bytes.size() * sizeof bytes[0] + 1), MSG_NOSIGNAL);
    close(fd);
    usleep(1000);  // so that the backlog does not fill up
  }
  EXPECT_EQ(call(kEcho, "alive", 8).second, "alive");
}

// Eight threads make the first calls of their process at once. Some connect twice, and each call must stay on the
// connection that it began on.
TEST(ServiceStress, FirstCallersOfAProcess) {
  TIRN_NEEDS_SERVER(server);
  for (int round = 0; round < 20; ++round) {
    const ChildOutcome outcome = run_child([] {
      together(8, [](unsigned thread) {
        for (unsigned i = 0; i < 20; ++i) {
          const std::string text = std::to_string(thread * 100 + i);
          EXPECT_EQ(call(kEcho, text, 16).second, text);
        }
      });
      return 0;
    });
    ASSERT_TRUE(outcome.exited()) << outcome;
  }
}
