// The stop of the tour about timers of both kinds.
#include <dirent.h>
#include <semaphore.h>
#include <tirn/jiffies.h>
#include <tirn/timer.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tour.h"

namespace tirnctl {
namespace {

constexpr int kTimes = 50;  // that a periodic timer fires

// A timer that starts itself again until it has fired kTimes times.
struct Periodic {
  const char* name;
  int (*add)(kesa_timer* timer);
  uint64_t timeout;
  uint64_t (*due)(const kesa_timer& timer);  // in nanoseconds of `clock`
  uint64_t (*clock)();
  kesa_timer timer{};
  uint64_t late[kTimes]{};
  int fired = 0;
  sem_t done{};
};

void fire(uint64_t data) {
  Periodic& one = *reinterpret_cast<Periodic*>(data);
  one.late[one.fired++] = one.clock() - one.due(one.timer);
  if (one.fired < kTimes) {
    one.add(&one.timer);
  } else {
    sem_post(&one.done);
  }
}

uint64_t due_on_wheel(const kesa_timer& timer) { return timer.expires * 1'000'000; }
uint64_t due_on_tree(const kesa_timer& timer) {
  return static_cast<uint64_t>(timer.hrExpireSec) * 1'000'000'000 + static_cast<uint64_t>(timer.hrExpireNsec);
}

bool show_lateness(Periodic one) {
  sem_init(&one.done, 0, 0);
  kesa_timer_set(&one.timer, one.timeout, reinterpret_cast<uintptr_t>(&one), fire);
  bool is_done = one.add(&one.timer) == 0;
  while (is_done && sem_wait(&one.done) != 0) {
  }
  kesa_timer_destroy(&one.timer);
  std::sort(one.late, one.late + one.fired);
  std::printf("    %-24s %2d times, late by %5.1f us in the median, %6.1f us at most\n", one.name, one.fired,
              static_cast<double>(one.late[kTimes / 2]) / 1e3, static_cast<double>(one.late[kTimes - 1]) / 1e3);
  return is_done;
}

// Returns how often the thread of this name has gone to sleep by itself.
long sleeps_of(const char* name) {
  const auto read_line = [](const std::string& path, const char* begin) {
    char line[128] = "";
    if (FILE* const file = std::fopen(path.c_str(), "re")) {
      while (std::fgets(line, sizeof line, file) != nullptr && std::strncmp(line, begin, std::strlen(begin)) != 0) {
      }
      std::fclose(file);
    }
    return std::string(line);
  };
  long sleeps = -1;
  DIR* const tasks = opendir("/proc/self/task");
  for (const dirent* task = nullptr; tasks != nullptr && (task = readdir(tasks)) != nullptr;) {
    const std::string status = std::string("/proc/self/task/") + task->d_name + "/status";
    if (read_line(status, "Name:").find(name) != std::string::npos) {
      const std::string line = read_line(status, "voluntary_ctxt_switches:");
      sleeps = std::atol(line.c_str() + line.find_last_of("\t ") + 1);
    }
  }
  if (tasks != nullptr) {
    closedir(tasks);
  }
  return sleeps;
}

void show_wake_ups(const char* what) {
  const long before = sleeps_of("kesa_run_timers");
  sleep(1);
  std::printf("    %-24s %ld wake-ups in a second\n", what, sleeps_of("kesa_run_timers") - before);
}

}  // namespace

bool show_timers() {
  const bool is_shown = show_lateness({"wheel, 1 ms", kesa_timer_add, 1, due_on_wheel, kesa_time_getnanosec}) &&
                        show_lateness({"wheel, 10 ms", kesa_timer_add, 10, due_on_wheel, kesa_time_getnanosec}) &&
                        show_lateness({"high resolution, 100 us", kesa_timer_add_ns, 100'000, due_on_tree, now});
  kesa_timer far{};
  kesa_timer_set(&far, 3'600'000, 0, [](uint64_t) {});
  show_wake_ups("no timer pending");
  kesa_timer_add(&far);
  show_wake_ups("one in an hour");
  return kesa_timer_delete(&far) == 0 && is_shown;
}

}  // namespace tirnctl
