// Measures the first start-up of a process, and later calls of kesa_Init.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "cold_start.h"
#include "peers/peers.h"
#include "support/bench.h"
#include "support/machine.h"
#include "tirn/init.h"

namespace tirn::bench {
namespace {

// Starts this program again; the new process measures itself and writes the sample to its standard output.
Sample cold_start(uint64_t) {
  Sample sample{0, true};
  int ends[2];
  if (pipe(ends) != 0) {
    return sample;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  // The two log lines of a start-up go to /dev/null, where they cost least.
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addclose(&actions, ends[0]);
  posix_spawn_file_actions_addclose(&actions, ends[1]);
  char program[] = "tirn_bench";
  char argument[sizeof kColdStart];
  std::memcpy(argument, kColdStart, sizeof kColdStart);
  char* const arguments[] = {program, argument, nullptr};
  pid_t child;
  const bool started = posix_spawn(&child, "/proc/self/exe", &actions, nullptr, arguments, environ) == 0;
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  if (started) {
    if (read(ends[0], &sample, sizeof sample) != static_cast<ssize_t>(sizeof sample)) {
      sample.disturbed = true;
    }
    waitpid(child, nullptr, 0);
  }
  close(ends[0]);
  return sample;
}

std::string start() {
  uint32_t result = 0;
  start_apart([&] { result = kesa_Init(); });
  return result == 0 ? "" : "kesa_Init fails here";
}

const Family start_up{[] {
  return std::vector<Group>{
      {.name = "init/cold", .unit = kMicroseconds, .ours = {"kesa_Init, first in its process", cold_start, 1}},
      {.name = "init/warm",
       .repetition = repetition_beside_clock(),
       .set_up = start,
       .ours = {"kesa_Init, again", one_thread([] { benchmark::DoNotOptimize(kesa_Init()); })},
       .shown = {{"call with a flag test and a load",
                  one_thread([] { benchmark::DoNotOptimize(peer_flag_and_load()); })}}},
  };
}};

}  // namespace

int report_cold_start() {
  uint32_t result = 0;
  Sample sample = timed([&] { result = kesa_Init(); });
  sample.disturbed |= result != 0;
  return write(STDOUT_FILENO, &sample, sizeof sample) == static_cast<ssize_t>(sizeof sample) ? 0 : 1;
}

}  // namespace tirn::bench
