// Takes a stamp that differs between this process and an earlier one of the same program, and makes mutexes by kind.
#include "tirn/process.h"

#include <time.h>

#include <atomic>
#include <cerrno>

#include "libtirn/base/log.h"
#include "libtirn/base/once.h"

using namespace tirn;

namespace {

constinit std::atomic<uint64_t> g_version{0};
constinit Once g_version_taken;

}  // namespace

__attribute__((weak)) uint64_t ps_get_version() {
  g_version_taken.run(
      [] {
        timespec now{};
        const int result = clock_gettime(CLOCK_MONOTONIC_RAW, &now);
        if (result != 0) {
          return TIRN_INFO_AS("ps_get_version", "Clock_gettime fail ret:%d errno:%d", result, errno), kFail;
        }
        g_version.store(static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec),
                        std::memory_order_relaxed);
        return kOk;
      },
      Once::Done::kAlways);
  return g_version.load(std::memory_order_relaxed);
}

int kesa_mtx_init(pthread_mutex_t* mutex, int kind) {
  static constexpr int kKinds[] = {PTHREAD_MUTEX_NORMAL, PTHREAD_MUTEX_ERRORCHECK, PTHREAD_MUTEX_RECURSIVE};
  if (kind < KESA_MTX_NORMAL || kind > KESA_MTX_RECURSIVE) {
    return kFail;
  }
  pthread_mutexattr_t attributes;
  if (const int error = pthread_mutexattr_init(&attributes); error != 0) {
    return error;
  }
  pthread_mutexattr_settype(&attributes, kKinds[kind]);
  const int result = pthread_mutex_init(mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  return result;
}

int kesa_mtx_destroy(pthread_mutex_t* mutex) { return pthread_mutex_destroy(mutex); }
