// Reads jiffies from the mapped device, or from the cycle clock if there is none.
#include <atomic>

#include "libtirn/base/once.h"
#include "tirn/jiffies.h"

using namespace tirn;

struct jiffies_uio g_jiffies_uio;

namespace {

constinit Once g_device_mapped;
constinit Once g_clocks_ready;

// Succeeds if one of the two works: once the clock is set up, this function is not called again for a missing device.
int set_up_clocks() {
  const int device = jiffies_usr_main();
  const int clock = kesa_gettime_init();
  return device == kOk ? device : clock;
}

}  // namespace

int jiffies_usr_main() {
  return g_device_mapped.run([] {
    // Atomic, because threads may read the counter's address meanwhile. It is NULL until a device is mapped.
    std::atomic_ref(g_jiffies_uio.jiffies).store(nullptr, std::memory_order_relaxed);
    g_jiffies_uio.dev_fd = g_jiffies_uio.addr_fd = g_jiffies_uio.size_fd = g_jiffies_uio.offset_fd = 0;
    g_jiffies_uio.addr = g_jiffies_uio.size = 0;
    return jiffies_uio_adp_open();
  });
}

int jiffies_Init() { return g_clocks_ready.run(set_up_clocks); }

void jiffies_fini() {}

jiffies_uio* jiffies_uio_get() { return &g_jiffies_uio; }

uint64_t kesa_get_jiffies() {
  if (!g_clocks_ready.is_done()) [[unlikely]] {
    jiffies_Init();
  }
  const uint64_t* const counter = std::atomic_ref(g_jiffies_uio.jiffies).load(std::memory_order_acquire);
  if (counter != nullptr) [[likely]] {
    return __atomic_load_n(counter, __ATOMIC_RELAXED);
  }
  return kesa_time_getnanosec() / KESA_NANOSECONDS_PER_JIFFY;
}
