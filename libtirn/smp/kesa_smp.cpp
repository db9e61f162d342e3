#include "tirn/smp.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "libtirn/base/log.h"
#include "libtirn/base/once.h"
#include "tirn/cpumask.h"

uint32_t g_onlineCpuNum;
uint32_t g_configCpuNum;

namespace {

constinit tirn::Once g_counts_taken;
constinit std::atomic<uint32_t> g_online_cached{0};

// Readers take no lock; racing writers store the same value.
std::atomic_ref<uint32_t> word(uint32_t& count) {
  return std::atomic_ref(count);
}

int take_counts() {
  word(g_onlineCpuNum).store(num_online_cpus(), std::memory_order_relaxed);
  const long configured = sysconf(_SC_NPROCESSORS_CONF);
  if (configured < 0) {
    TIRN_LOG_AS(tirn::kModule, tirn::kError, "globalCpuNum_init", "Kesa_smp getting cpu num failed errno=%d.", errno);
  } else {
    word(g_configCpuNum).store(static_cast<uint32_t>(configured), std::memory_order_relaxed);
  }
  return g_onlineCpuNum != 0 && g_configCpuNum != 0 ? tirn::kOk : tirn::kFail;
}

}  // namespace

int globalCpuNum_init() {
  return g_counts_taken.run(take_counts);
}

uint32_t num_online_cpus() {
  uint32_t online = g_online_cached.load(std::memory_order_relaxed);
  if (online == 0) {
    const long answer = sysconf(_SC_NPROCESSORS_ONLN);
    online = answer > 0 ? static_cast<uint32_t>(answer) : 0;
    g_online_cached.store(online, std::memory_order_relaxed);
  }
  return online;
}

uint32_t num_config_cpus() {
  const uint32_t known = word(g_configCpuNum).load(std::memory_order_relaxed);
  if (known != 0) {
    return known;
  }
  const long configured = sysconf(_SC_NPROCESSORS_CONF);
  if (configured < 1 || configured > static_cast<long>(KESA_CPU_MAX)) {
    TIRN_ERROR("Kesa_smp getting cpu num failed ret %ld errno=%d.", configured, errno);
    return 0;
  }
  word(g_configCpuNum).store(static_cast<uint32_t>(configured), std::memory_order_relaxed);
  return static_cast<uint32_t>(configured);
}
