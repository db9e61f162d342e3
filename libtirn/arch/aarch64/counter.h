// AArch64: reads the generic timer's virtual counter, unscaled.
#ifndef TIRN_ARCH_AARCH64_COUNTER_H
#define TIRN_ARCH_AARCH64_COUNTER_H

#include <cstdint>

namespace tirn::arch {

inline uint64_t counter_read() {
  uint64_t ticks;
  asm volatile("mrs %0, cntvct_el0" : "=r"(ticks));
  return ticks;
}

inline void spin_hint() { asm volatile("yield" ::: "memory"); }

inline void fetch_to_write(const void* bytes) { asm volatile("prfm pstl1keep, [%0]" : : "r"(bytes)); }

}  // namespace tirn::arch

#endif
