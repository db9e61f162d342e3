// Sets priority and cores, and collects the facts of the machine.
#include "support/machine.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <thread>

namespace tirn::bench {
namespace {

bool start_session() {
  if (setsid() != -1) {
    return true;
  }
  const pid_t child = fork();
  if (child < 0) {
    return false;
  }
  if (child > 0) {
    int status = 0;
    waitpid(child, &status, 0);
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : EXIT_FAILURE);
  }
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  return setsid() != -1;
}

bool raise_session() {
  const int fd = open("/proc/self/autogroup", O_WRONLY | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  const bool written = write(fd, "-20", 3) == 3;
  close(fd);
  return written;
}

std::string processor_name() {
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);) {
    if (line.rfind("model name", 0) == 0 || line.rfind("CPU part", 0) == 0) {
      return line.substr(line.find(':') + 2);
    }
  }
  return "unknown";
}

}  // namespace

std::string raise_priority() {
  const bool session = start_session();
  const bool nice = setpriority(PRIO_PROCESS, 0, -20) == 0;
  const bool group = session && nice && raise_session();
  if (!nice) {
    return "as started (raising it is not permitted, so more repetitions are dropped on a busy machine)";
  }
  return group ? "nice -20, with the session's scheduler group" : "nice -20, within the session only";
}

const std::vector<int>& cores() {
  static const std::vector<int> allowed = [] {
    std::vector<int> found;
    cpu_set_t set;
    if (sched_getaffinity(0, sizeof set, &set) == 0) {
      for (int core = 0; core < CPU_SETSIZE; ++core) {
        if (CPU_ISSET(core, &set)) {
          found.push_back(core);
        }
      }
    }
    return found;
  }();
  return allowed;
}

void pin_to(int core) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(core, &set);
  sched_setaffinity(0, sizeof set, &set);
}

void unpin() {
  cpu_set_t set;
  CPU_ZERO(&set);
  for (const int core : cores()) {
    CPU_SET(core, &set);
  }
  sched_setaffinity(0, sizeof set, &set);
}

struct AwakeCores::State {
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
};

AwakeCores::AwakeCores() : state_(new State) {
  for (const int core : cores()) {
    state_->threads.emplace_back([this, core] {
      pin_to(core);
      const sched_param none{};
      pthread_setschedparam(pthread_self(), SCHED_IDLE, &none);
      while (!state_->stop.load(std::memory_order_relaxed)) {
      }
    });
  }
}

AwakeCores::~AwakeCores() {
  state_->stop.store(true, std::memory_order_relaxed);
  for (std::thread& thread : state_->threads) {
    thread.join();
  }
  delete state_;
}

bool has_avx2() {
#if defined(__x86_64__)
  return __builtin_cpu_supports("avx2") != 0;
#else
  return false;
#endif
}

std::vector<std::pair<std::string, std::string>> machine_facts() {
  utsname system{};
  uname(&system);
  std::string caches;
  for (const auto& cache : benchmark::CPUInfo::Get().caches) {
    caches += (caches.empty() ? "L" : ", L") + std::to_string(cache.level) + ' ' + cache.type + ' ' +
              std::to_string(cache.size / 1024) + " KiB";
  }
  double load[1] = {0};
  getloadavg(load, 1);
  char load_text[32];
  std::snprintf(load_text, sizeof load_text, "%.2f", load[0]);
  char time_text[32];
  const time_t now = std::time(nullptr);
  std::strftime(time_text, sizeof time_text, "%Y-%m-%d %H:%M:%S UTC", std::gmtime(&now));
  return {{"processor", processor_name()},
          {"caches", caches},
          {"cores", std::to_string(cores().size())},
          {"kernel", std::string(system.release) + ' ' + system.machine},
          {"compiler", "gcc " __VERSION__},
          {"load", load_text},
          {"time", time_text}};
}

}  // namespace tirn::bench
