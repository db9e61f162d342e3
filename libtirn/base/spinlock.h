// The plain spinlock's quick ways, inlined for the library's own short sections: a call costs as much as taking a free
// lock does.
#ifndef TIRN_BASE_SPINLOCK_H
#define TIRN_BASE_SPINLOCK_H

#include <atomic>

#include "tirn/lock.h"

namespace tirn {

// One attempt. Acquire: pairs with the release in unlock_spinlock.
__attribute__((always_inline)) inline bool take_spinlock(kesa_spinlock& spinlock) {
  uint64_t free = 0;
  return std::atomic_ref(spinlock.lock)
      .compare_exchange_strong(free, 1, std::memory_order_acq_rel, std::memory_order_relaxed);
}

// Always inlined: the line of a waiter's stack counts frames.
__attribute__((always_inline)) inline void lock_spinlock(kesa_spinlock& spinlock) {
  if (!take_spinlock(spinlock)) [[unlikely]] {
    kesa_spinlock_lock(&spinlock);
  }
}

inline void unlock_spinlock(kesa_spinlock& spinlock) {
  std::atomic_ref(spinlock.lock).store(0, std::memory_order_release);
}

}  // namespace tirn

#endif
