// Sleeps and delays, the wake-up signal, the wait on a word, and binding to one CPU.
#include "tirn/sched.h"

#include <pthread.h>
#include <sched.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "libtirn/base/log.h"
#include "libtirn/base/private_call.h"
#include "libtirn/base/result.h"
#include "tirn/jiffies.h"
#include "tirn/thread.h"

using namespace tirn;

namespace {

constinit std::atomic<uint32_t> g_handler_missing{~uint32_t{0}};
int g_first_result = kOk;
pthread_once_t g_once = PTHREAD_ONCE_INIT;

// Sleeps in select, which a signal ends even with SA_RESTART. Keeps errno, because locks sleep this way too.
int sleep_by_select(uint32_t seconds, uint32_t microseconds) {
  const int error = errno;
  timeval time{static_cast<time_t>(seconds), static_cast<suseconds_t>(microseconds)};
  select(0, nullptr, nullptr, nullptr, &time);
  errno = error;
  return kOk;
}

// Two threads may both install the handler; they install the same one.
int install_wakeup_handler() {
  if (g_handler_missing.load(std::memory_order_acquire) == 0) {
    return kOk;
  }
  struct sigaction action {};
  action.sa_handler = [](int) {};
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  if (sigaction(SIGWAKEUP, &action, nullptr) != 0) {
    return TIRN_ERROR_AS("install_wakeup_handler", "signal SIGWAKEUP(%d) fail errno(%d)", SIGWAKEUP, errno), kFail;
  }
  // Pairs with the acquire above: a thread that sees 0 may send the signal.
  g_handler_missing.store(0, std::memory_order_release);
  return kOk;
}

}  // namespace

int kesa_msleep(uint32_t milliseconds) { return sleep_by_select(milliseconds / 1000, milliseconds % 1000 * 1000); }

int kesa_usleep(uint32_t microseconds) { return sleep_by_select(microseconds / 1000000, microseconds % 1000000); }

int kesa_10msleep(uint32_t tens_of_milliseconds) {
  return sleep_by_select(tens_of_milliseconds / 100, tens_of_milliseconds % 100 * 10000);
}

int kesa_schedule() {
  const int error = errno;
  const timespec time{0, 1000000};
  nanosleep(&time, nullptr);
  errno = error;
  return kOk;
}

int kesa_mdelay(uint32_t milliseconds) {
  const uint64_t start = kesa_time_getnanosec();
  while (kesa_time_getnanosec() - start <= uint64_t{milliseconds} * 1000000) {
  }
  return kOk;
}

int kesa_yield() { return sched_yield(); }

int kesa_set_process_name(const char* name) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  kesa_thrd_setname(name);
#pragma GCC diagnostic pop
  return kOk;
}

int kesa_sched_init() {
  pthread_once(&g_once, [] { g_first_result = install_wakeup_handler(); });
  if (g_first_result != kOk) {
    return TIRN_ERROR("sched init fail s_sched_init(%d)", g_first_result), kFail;
  }
  return kOk;
}

int kesa_wake_up_process(uint32_t tid) {
  install_wakeup_handler();
  return syscall(SYS_tgkill, getpid(), tid, SIGWAKEUP) == 0 ? 0 : errno;
}

int64_t kesa_wait_comm(uint32_t* state, int64_t timeout) {
  install_wakeup_handler();
  if (timeout <= 0 || state == nullptr) {
    return 0;
  }
  int64_t rest = 0;
  const long result = private_call(PrivateCommand::kWait, state, &timeout, &rest);
  // The acquire makes the waker's earlier writes visible, also if its signal ended the sleep.
  std::atomic_ref(*state).load(std::memory_order_acquire);
  return result == 0 ? 0 : rest;
}

int kesa_wait_interruptible(uint32_t* state) {
  constexpr int64_t kSecond = 250;  // jiffies
  return kesa_wait_comm(state, kSecond) != 0 ? kFail : kOk;
}

int kesa_sched_setaffinity(uint64_t cpu) {
  const long configured = sysconf(_SC_NPROCESSORS_CONF);
  if (configured < 0 || cpu >= static_cast<uint64_t>(configured)) {
    return TIRN_ERROR("cpu num overstep, current only has %ld cpu", configured), kFail;
  }
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  if (sched_setaffinity(0, sizeof set, &set) != 0) {
    return TIRN_ERROR("set affinity fail, errno:%d", errno), kFail;
  }
  kesa_thrd_core_set(static_cast<int>(cpu));
  return kOk;
}
