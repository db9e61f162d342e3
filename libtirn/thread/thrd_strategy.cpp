// Strategies: the priority and the CPUs of each kind of thread.
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "tirn/cpu.h"
#include "tirn/thread.h"

using namespace tirn;

namespace {

constexpr uint32_t kValid = 1;
constexpr size_t kWords = sizeof(cpu_set_t) / sizeof(uint64_t);

// Relaxed words: a process sets them up at its start, and each thread reads them for itself.
struct ThreadStrategy {
  std::atomic<uint32_t> flags;  // kValid: the other fields are set up
  std::atomic<int> prio;
  std::atomic<uint64_t> cpumask[kWords];
};

constinit ThreadStrategy g_strategies[KESA_STRATEGY_COUNT]{};
constexpr const char* kNames[KESA_STRATEGY_COUNT] = {"Default", "Critical", "Ctrl", "Manage", "IO", "BackGroud"};

// A set of CPUs as words, which is the form that the parser fills in.
struct CpuSet {
  uint64_t words[kWords]{};
  cpu_set_t as_cpu_set() const {
    cpu_set_t set;
    std::memcpy(&set, words, sizeof set);
    return set;
  }
};
static_assert(sizeof(CpuSet) == sizeof(cpu_set_t));

CpuSet cpus_of(const ThreadStrategy& strategy) {
  CpuSet set;
  for (size_t i = 0; i < kWords; ++i) {
    set.words[i] = strategy.cpumask[i].load(std::memory_order_relaxed);
  }
  return set;
}

void store_cpus(ThreadStrategy& strategy, const CpuSet& set) {
  for (size_t i = 0; i < kWords; ++i) {
    strategy.cpumask[i].store(set.words[i], std::memory_order_relaxed);
  }
}

bool is_valid(const ThreadStrategy& strategy) {
  return (strategy.flags.load(std::memory_order_acquire) & kValid) != 0;
}

// Returns the strategy that applies for `id`: its own, or the default one if its own was not set up. Returns nullptr
// for an invalid id, and if neither was set up.
const ThreadStrategy* strategy_in_force(uint32_t id) {
  if (id >= KESA_STRATEGY_COUNT) {
    return TIRN_INFO_AS("kesa_getValidThreadAttr", "Invalid thread strategy %d.", static_cast<int>(id)), nullptr;
  }
  const ThreadStrategy* const strategy = is_valid(g_strategies[id]) ? &g_strategies[id] : g_strategies;
  return is_valid(*strategy) ? strategy : nullptr;
}

}  // namespace

int kesa_initThreadStrategy(uint32_t id, const KesaThreadStrategyCfg* cfg) {
  if (id >= KESA_STRATEGY_COUNT) {
    return TIRN_INFO("Invalid thread strategy %d.", static_cast<int>(id)), kFail;
  }
  if (cfg == nullptr) {
    return kFail;
  }
  ThreadStrategy& strategy = g_strategies[id];
  strategy.flags.fetch_and(~kValid, std::memory_order_relaxed);
  strategy.prio.store(static_cast<int>(cfg->prio), std::memory_order_relaxed);
  CpuSet set;
  store_cpus(strategy, set);
  if (kesa_cpum_parse_cpumask(cfg->cpumask, set.words) != kOk) {
    return TIRN_INFO("Invalid cpu mask info:%s.", cfg->cpumask != nullptr ? cfg->cpumask : "(null)"), kFail;
  }
  store_cpus(strategy, set);
  strategy.flags.fetch_or(kValid, std::memory_order_release);  // pairs with the acquire in is_valid
  return kOk;
}

int kesa_setCurThreadPrio(int prio) {
  // On Linux each thread has a nice value of its own; 0 means the calling thread.
  if (setpriority(PRIO_PROCESS, 0, prio) != 0) {
    TIRN_LIMITED(kWarning, "Set thread prio fail %d, errno %d.", prio, errno);
    return kFail;
  }
  return kOk;
}

int kesa_thrd_setprio(uint32_t level) {
  constexpr int kNiceValues[] = {-20, -15, 0, 10, 15, 20};
  constexpr uint32_t kLastLevel = 4;  // the value 20 is never used
  return level <= kLastLevel ? kesa_setCurThreadPrio(kNiceValues[level]) : kOk;
}

int kesa_setCurThreadBind(const char* mask) {
  CpuSet set;
  if (kesa_cpum_parse_cpumask(mask, set.words) != kOk) {
    TIRN_ERROR_AS("kesa_thrd_setbindcpustr", "Bind thread:%lu to cpu:%s fail, invalid cpu mask.", pthread_self(),
                  mask != nullptr ? mask : "(null)");
    return kFail;
  }
  const cpu_set_t cpus = set.as_cpu_set();
  return kesa_thrd_setbindcpu(pthread_self(), &cpus);
}

int kesa_setCurThreadStrategy(uint32_t id) {
  const ThreadStrategy* const strategy = strategy_in_force(id);
  if (strategy == nullptr) {
    return kOk;
  }
  const cpu_set_t cpus = cpus_of(*strategy).as_cpu_set();
  if (kesa_setCurThreadPrio(strategy->prio.load(std::memory_order_relaxed)) != kOk ||
      kesa_thrd_setbindcpu(pthread_self(), &cpus) != kOk) {
    TIRN_LIMITED(kInfo, "Set thread strategy %d fail.", static_cast<int>(id));
    return kFail;
  }
  if (m_current_thread != nullptr) {  // kesa_thrd_list may read it meanwhile
    std::atomic_ref(m_current_thread->strategy).store(static_cast<int32_t>(id), std::memory_order_relaxed);
  }
  return kOk;
}

int kesa_showThreadStrategyDbg(kesa_print_fn print) {
  print("%-10s %-10s %-4s %-s\n", "Strategy", "Flags", "Prio", "CpuMask");
  for (size_t i = 0; i < KESA_STRATEGY_COUNT; ++i) {
    const ThreadStrategy& strategy = g_strategies[i];
    const CpuSet set = cpus_of(strategy);
    print("%-10s 0x%08x %-4d 0x%016lx %016lx %016lx %016lx\n", kNames[i],
          strategy.flags.load(std::memory_order_relaxed), strategy.prio.load(std::memory_order_relaxed), set.words[0],
          set.words[1], set.words[2], set.words[3]);
  }
  return kOk;
}
