// The fast paths of the plain spinlock, inlined for the library's own short sections: a call would cost as much as
// taking a free lock.
#ifndef TIRN_BASE_SPINLOCK_H
#define TIRN_BASE_SPINLOCK_H

#include <atomic>

#include "tirn/lock.h"

namespace tirn {

// Makes one attempt to take the lock and returns whether it succeeded.
__attribute__((always_inline)) inline bool take_spinlock(kesa_spinlock& spinlock) {
  uint64_t free = 0;
  return std::atomic_ref(spinlock.lock)
      .compare_exchange_strong(free, 1, std::memory_order_acq_rel, std::memory_order_relaxed);
}

// Always inlined: `debug_dump_stack` skips a fixed number of frames.
__attribute__((always_inline)) inline void lock_spinlock(kesa_spinlock& spinlock) {
  if (!take_spinlock(spinlock)) [[unlikely]] {
    kesa_spinlock_lock(&spinlock);
  }
}

// The release pairs with the acquire in take_spinlock.
inline void unlock_spinlock(kesa_spinlock& spinlock) {
  std::atomic_ref(spinlock.lock).store(0, std::memory_order_release);
}

}  // namespace tirn

#endif
