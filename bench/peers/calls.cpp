// Defines small calls with a known cost, and readings of clocks.
#include <array>
#include <chrono>

#include "peers/peers.h"

namespace {

// Never written, but volatile, so that the compiler does not treat them as constants.
volatile uint32_t loads[1024];
volatile uint32_t second_load[16];
volatile bool flag = true;
volatile uint64_t value = 1;

}  // namespace

void peer_empty(uint32_t, uint32_t) { asm volatile(""); }

int peer_two_loads(uint32_t row, uint32_t bound) { return loads[row % 1024] + second_load[0] < bound ? 0 : -1; }

uint64_t peer_flag_and_load() { return flag ? value : 0; }

uint64_t peer_raw_counter() {
#if defined(__x86_64__)
  return __builtin_ia32_rdtsc();
#else
  uint64_t count;
  asm volatile("mrs %0, cntvct_el0" : "=r"(count));
  return count;
#endif
}

int64_t peer_steady_clock() { return std::chrono::steady_clock::now().time_since_epoch().count(); }
