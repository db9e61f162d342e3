// Recognises forked children and restarts the stand-in's thread in them.
#include "fork.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "jiffies.h"

namespace zut {
namespace {

constexpr unsigned kIdBits = 22;  // enough for every process id

constinit std::atomic<uint32_t> generation{0};  // forks from the process that first followed them to this one
constinit pthread_once_t followed = PTHREAD_ONCE_INIT;

void renew_in_child() {
  const int kept = errno;
  generation.fetch_add(1, std::memory_order_relaxed);
  restart_thread();
  errno = kept;
}

}  // namespace

uint32_t this_process() {
  return static_cast<uint32_t>(getpid()) | generation.load(std::memory_order_relaxed) << kIdBits;
}

void follow_forks() {
  pthread_once(&followed, [] { pthread_atfork(nullptr, nullptr, renew_in_child); });
}

}  // namespace zut
