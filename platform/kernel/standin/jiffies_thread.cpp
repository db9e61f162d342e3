// The thread that keeps the counters current.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "futex.h"
#include "jiffies.h"

namespace zut {
namespace {

// More than one counter only where the folder was removed and made anew: whoever mapped the old device reads on.
constexpr int kMostCounters = 8;
constinit std::atomic<uint64_t*> counters[kMostCounters]{};
constinit std::atomic<pid_t> thread_process{0};  // the process in which the thread runs
constinit std::atomic<bool> forks_followed{false};

// Never back: other processes store into the same word, and may be ahead by a moment.
void advance(uint64_t* counter, uint64_t now) {
  const std::atomic_ref word(*counter);
  uint64_t seen = word.load(std::memory_order_relaxed);
  while (seen < now && !word.compare_exchange_weak(seen, now, std::memory_order_relaxed)) {
  }
}

void* tick(void*) {
  pthread_setname_np(pthread_self(), "zut_jiffies");
  for (;;) {
    const int64_t now = monotonic_now() / kJiffy;
    for (const auto& counter : counters) {
      // Pairs with the release in keep_current.
      if (uint64_t* word = counter.load(std::memory_order_acquire)) {
        advance(word, static_cast<uint64_t>(now));
      }
    }
    const timespec next = to_timespec((now + 1) * kJiffy);
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
  }
  return nullptr;
}

int start_thread() {
  if (thread_process == getpid()) {
    return 0;
  }
  constexpr size_t kStack = 256 * 1024;
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attributes, kStack);
  sigset_t all;
  sigset_t kept;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &kept);  // the thread inherits it: no signal of the program ends up here
  pthread_t thread;
  const int error = pthread_create(&thread, &attributes, tick, nullptr);
  pthread_sigmask(SIG_SETMASK, &kept, nullptr);
  pthread_attr_destroy(&attributes);
  if (error != 0) {
    errno = error;
    return -1;
  }
  thread_process = getpid();
  return 0;
}

// In a forked child: its counters go on when the parent is gone. A failure is made good by the next discovery.
void restart_in_child() {
  const int kept = errno;
  if (thread_process != 0) {
    start_thread();
  }
  errno = kept;
}

}  // namespace

int keep_current(uint64_t* counter) {
  for (auto& slot : counters) {
    uint64_t* held = slot.load(std::memory_order_relaxed);
    if (held != nullptr && held != counter) {
      continue;
    }
    advance(counter, static_cast<uint64_t>(monotonic_now() / kJiffy));
    slot.store(counter, std::memory_order_release);
    if (!forks_followed) {
      forks_followed = pthread_atfork(nullptr, nullptr, restart_in_child) == 0;
    }
    return start_thread();
  }
  errno = ENOSPC;
  return -1;
}

}  // namespace zut
