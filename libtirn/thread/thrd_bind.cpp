// Binds threads to CPUs, and tells which ones they are bound to.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "libtirn/base/log.h"
#include "libtirn/base/once.h"
#include "libtirn/base/result.h"
#include "tirn/smp.h"
#include "tirn/thread.h"

using namespace tirn;

namespace {

static_assert(sizeof(cpu_set_t) == 128);

constinit std::atomic<uint32_t> g_config_cpus{0};
constinit Once g_all_cpus_known;
cpu_set_t g_all_cpus;

// Returns the number of configured CPUs, or the number of bits in a set if the system does not report it. Racing
// threads store the same value.
uint32_t config_cpus() {
  uint32_t count = g_config_cpus.load(std::memory_order_relaxed);
  if (count == 0) {
    const uint32_t told = num_config_cpus();
    count = told != 0 ? told : CPU_SETSIZE;
    g_config_cpus.store(count, std::memory_order_relaxed);
  }
  return count;
}

}  // namespace

int kesa_thrd_setbindcpu(pthread_t thread, const cpu_set_t* set) {
  const size_t size = std::min<size_t>((config_cpus() + 7) / 8, sizeof *set);
  const auto* const bytes = reinterpret_cast<const uint8_t*>(set);
  if (std::all_of(bytes, bytes + size, [](uint8_t byte) { return byte == 0; })) {
    return kOk;
  }
  const int result = pthread_setaffinity_np(thread, size, set);
  if (result != 0) {
    return TIRN_ERROR("Set thread(0x%lx) affinity bind cpu failed(%d).", thread, result), kFail;
  }
  return kOk;
}

int kesa_thrd_getbindcpu(pthread_t thread, cpu_set_t* set) {
  CPU_ZERO(set);
  const int result = pthread_getaffinity_np(thread, sizeof *set, set);
  if (result != 0) {
    TIRN_ERROR("Get thread(%llu) affinity bind cpu failed(%d).", static_cast<unsigned long long>(thread), result);
    return kFail;
  }
  return kOk;
}

int kesa_thrd_getbindcpu_bypid(pid_t pid, cpu_set_t* set) {
  CPU_ZERO(set);
  const int result = sched_getaffinity(pid, sizeof *set, set);
  if (result != 0) {
    TIRN_ERROR("Get thread(%llu) affinity bind cpu by pid failed(%d), errno(%d:%s).",
               static_cast<unsigned long long>(pid), result, errno, strerrordesc_np(errno));
    return kFail;
  }
  return kOk;
}

int kesa_thrd_bindAllCfgCpu() {
  g_all_cpus_known.run([] {
    const uint32_t count = std::min<uint32_t>(config_cpus(), CPU_SETSIZE);
    for (uint32_t cpu = 0; cpu < count; ++cpu) {
      CPU_SET(cpu, &g_all_cpus);
    }
    return kOk;
  });
  const int result = pthread_setaffinity_np(pthread_self(), sizeof g_all_cpus, &g_all_cpus);
  if (result != 0) {
    return TIRN_ERROR("Create thread failed, error %d.", result), kFail;
  }
  return kOk;
}
