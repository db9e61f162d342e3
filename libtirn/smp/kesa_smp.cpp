// Counts the CPUs that are online and those that are configured.
#include "tirn/smp.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "libtirn/base/log.h"
#include "libtirn/base/once.h"
#include "tirn/cpumask.h"

using namespace tirn;

uint32_t g_onlineCpuNum;
uint32_t g_configCpuNum;

namespace {

constinit Once g_counts_taken;
constinit std::atomic<uint32_t> g_online_cached{0};

// Readers take no lock; racing writers store the same value.
uint32_t load(uint32_t& count) { return std::atomic_ref(count).load(std::memory_order_relaxed); }
void store(uint32_t& count, uint32_t value) { std::atomic_ref(count).store(value, std::memory_order_relaxed); }

int take_counts() {
  store(g_onlineCpuNum, num_online_cpus());
  const long configured = sysconf(_SC_NPROCESSORS_CONF);
  if (configured < 0) {
    TIRN_ERROR_AS("globalCpuNum_init", "Kesa_smp getting cpu num failed errno=%d.", errno);
  } else {
    store(g_configCpuNum, static_cast<uint32_t>(configured));
  }
  return load(g_onlineCpuNum) != 0 && load(g_configCpuNum) != 0 ? kOk : kFail;
}

}  // namespace

int globalCpuNum_init() { return g_counts_taken.run(take_counts); }

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
  const uint32_t known = load(g_configCpuNum);
  if (known != 0) {
    return known;
  }
  const long configured = sysconf(_SC_NPROCESSORS_CONF);
  if (configured < 1 || configured > static_cast<long>(KESA_CPU_MAX)) {
    return TIRN_ERROR("Kesa_smp getting cpu num failed ret %ld errno=%d.", configured, errno), 0;
  }
  store(g_configCpuNum, static_cast<uint32_t>(configured));
  return static_cast<uint32_t>(configured);
}
