// Runs the thread that keeps the counters current.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "futex.h"
#include "jiffies.h"

namespace zut {
namespace {

constinit std::atomic<uint64_t*> counters[kMostDevices]{};
constinit std::atomic<uint32_t> thread_process{0};  // the process in which the thread runs

// Sets the counter to `now`. Other processes store into the same word, so an older reading of the clock never
// replaces a newer one. A counter that is ahead of the clock itself is corrected.
void follow_clock(uint64_t* counter, uint64_t now) {
  constexpr uint64_t kSlack = 1;  // two processors may see a jiffy begin at different times
  const std::atomic_ref word(*counter);
  uint64_t seen = word.load(std::memory_order_relaxed);
  while (seen != now) {
    if (seen > now) {
      now = jiffies_now();  // another process may have stored a newer reading
      if (seen <= now + kSlack) {
        return;
      }
    }
    if (word.compare_exchange_weak(seen, now, std::memory_order_relaxed)) {
      return;
    }
  }
}

void* tick(void*) {
  pthread_setname_np(pthread_self(), "zut_jiffies");
  for (;;) {
    const uint64_t now = jiffies_now();
    for (const auto& counter : counters) {
      if (uint64_t* word = counter.load(std::memory_order_acquire)) {
        follow_clock(word, now);
      }
    }
    const timespec next = to_timespec(static_cast<int64_t>(now + 1) * kJiffy);
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
  }
  return nullptr;
}

int start_thread() {
  if (thread_process == this_process()) {
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
  pthread_sigmask(SIG_SETMASK, &all, &kept);  // the thread inherits the mask and gets no signal
  pthread_t thread;
  const int error = pthread_create(&thread, &attributes, tick, nullptr);
  pthread_sigmask(SIG_SETMASK, &kept, nullptr);
  pthread_attr_destroy(&attributes);
  if (error != 0) {
    errno = error;
    return -1;
  }
  thread_process = this_process();
  return 0;
}

}  // namespace

int keep_current(uint64_t* counter) {
  for (auto& slot : counters) {
    uint64_t* held = slot.load(std::memory_order_relaxed);
    if (held != nullptr && held != counter) {
      continue;
    }
    follow_clock(counter, jiffies_now());
    // Release: publishes the mapping. Pairs with the load in tick.
    slot.store(counter, std::memory_order_release);
    return start_thread();
  }
  errno = ENOSPC;
  return -1;
}

// Tests for a counter, not for a thread of the parent, because the parent may have been forked just before it started
// its thread.
void restart_thread() {
  if (counters[0] != nullptr) {
    start_thread();
  }
}

}  // namespace zut
