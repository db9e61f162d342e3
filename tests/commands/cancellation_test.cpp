// A cancellation that is pending as a call begins: what holds anything goes through to its end, and a sleep that the
// caller asked for ends with nothing lost.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/faults.h"
#include "tirn/fileops.h"
#include "tirn/jiffies.h"
#include "tirn/shm.h"
#include "tirn/str.h"

using namespace tirn::test;

namespace {

enum End { kGoesThrough, kIsCancelled, kEither };
int pipe_ends[2];
const kesa_file_lock whole{KESA_FILE_LOCK_WRITE, 0, 0};

struct Call {
  const char* name;
  End end;
  long (*run)();
  long result = 0;  // 0x300 where it goes through
};

Call calls[] = {
    {"kesa_system", kGoesThrough, [] { return long{kesa_system("exit 3")}; }},
    {"system_s", kGoesThrough, [] { return long{system_s("exit 3", nullptr)}; }},
    {"kesa_pclose", kGoesThrough,
     [] {
       FILE* const stream = kesa_popen("read x; exit $x", "w");
       std::fputs("3\n", stream);  // flushed as the stream is closed
       return long{kesa_pclose(stream)};
     }},
    {"popen_s", kGoesThrough, [] { return long{pclose(popen_s("exit 3", "r", nullptr))}; }},
    {"kesa_get_tsc_freq", kEither, [] { return long{kesa_get_tsc_freq()}; }},  // it may come to measure
    {"kesa_readdir_new", kIsCancelled,
     [] {
       return long{kesa_readdir_new(
           "/", [](auto...) -> int { pthread_exit(nullptr); }, nullptr)};
     }},
    {"kesa_shm_create", kGoesThrough,
     [] {
       return kesa_shm_create("/tirn_cancelled", 4096) == nullptr ? 0 : kesa_shm_destroy("/tirn_cancelled") + 0x300L;
     }},
    {"kesa_read", kIsCancelled, [] { return long{kesa_read(pipe_ends[0], pipe_ends, 1)}; }},
    {"kesa_close", kIsCancelled, [] { return long{kesa_close(pipe_ends[1])}; }},
    {"kesa_lockfile", kIsCancelled, [] { return long{kesa_lockfile(0, &whole)}; }},
};

}  // namespace

TEST(Cancellation, NothingIsLost) {
  LogCapture log;                        // where the machine tells no frequency
  kesa_pclose(kesa_popen("true", "r"));  // what lives as long as the process
  ASSERT_EQ(pipe(pipe_ends), 0);
  const int lowest = dup(0);
  close(lowest);
  for (Call& call : calls) {
    const Faults blocks({});
    pthread_t thread;
    pthread_create(
        &thread, nullptr,
        [](void* argument) -> void* {
          auto& its = *static_cast<Call*>(argument);
          pthread_cancel(pthread_self());
          its.result = its.run();
          return nullptr;
        },
        &call);
    pthread_join(thread, nullptr);
    EXPECT_TRUE(call.end == kEither || call.result == (call.end == kGoesThrough ? 0x300 : 0))
        << call.name << ' ' << call.result;
    const int next = dup(0);
    EXPECT_EQ(next, lowest) << call.name;
    close(next);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << call.name;
    EXPECT_EQ(blocks.blocks(), 0) << call.name;
  }
  EXPECT_EQ(write(pipe_ends[1], "!", 1), 1);  // still open
}
