// The plain spinlock: waiters spin for 100 us, then sleep.
#include <atomic>

#include "libtirn/arch/arch.h"
#include "libtirn/base/cancellation.h"
#include "libtirn/base/result.h"
#include "libtirn/base/spinlock.h"
#include "tirn/jiffies.h"
#include "tirn/lock.h"
#include "tirn/sched.h"

using namespace tirn;

static_assert(sizeof(kesa_spinlock) == 24 && offsetof(kesa_spinlock, owner) == 16);

namespace {

constexpr uint64_t kFree = 0;
constexpr int kBurst = 10;                  // attempts between two readings of the clock
constexpr uint64_t kSpinTime = 99999;       // nanoseconds until the waiter sleeps
constexpr uint32_t kFramesOfTheWaiter = 2;  // the frames of debug_dump_stack and of the lock function

// Relaxed. A change is a separate load and store, so of two concurrent changes one may be lost; the flags only switch
// diagnostics.
constinit std::atomic<uint64_t> g_flags{0};

// Reads the word before it tries to take it, so that a waiter does not pull the cache line away from the holder.
inline bool take_if_free(kesa_spinlock& spinlock) {
  return std::atomic_ref(spinlock.lock).load(std::memory_order_relaxed) == kFree && take_spinlock(spinlock);
}

}  // namespace

// The wait runs in this function's own frame, because `debug_dump_stack` skips a fixed number of frames.
__attribute__((noinline)) void do_kesa_spinlock_lock(kesa_spinlock* spinlock, const char*, uint32_t) {
  while (!take_spinlock(*spinlock))
    [[unlikely]] {
      arch::spin_hint();  // the holder may be about to leave
      const uint64_t start = kesa_time_getnanosec();
      do {
        for (int i = 0; i < kBurst; ++i) {
          if (take_if_free(*spinlock)) {
            return;
          }
        }
        arch::spin_hint();
      } while (kesa_time_getnanosec() - start <= kSpinTime);
      if ((g_flags.load(std::memory_order_relaxed) & KESA_SPINLOCK_FLAG_DUMP) != 0) {
        debug_dump_stack(kFramesOfTheWaiter);
      }
      const NoCancellation guard;  // a cancelled thread would leave the caller's other locks held
      kesa_schedule();
    }
}

int do_kesa_spinlock_trylock(kesa_spinlock* spinlock, const char*, uint32_t) {
  return take_spinlock(*spinlock) ? 1 : 0;
}

void do_kesa_spinlock_unlock(kesa_spinlock* spinlock, const char*, uint32_t) { unlock_spinlock(*spinlock); }

int kesa_spinlock_set_flags(uint64_t flags) {
  g_flags.store(g_flags.load(std::memory_order_relaxed) | flags, std::memory_order_relaxed);
  return kOk;
}

int kesa_spinlock_clear_flags(uint64_t flags) {
  g_flags.store(g_flags.load(std::memory_order_relaxed) & ~flags, std::memory_order_relaxed);
  return kOk;
}

int kesa_spinlock_get_flags(uint64_t* flags) {
  *flags = g_flags.load(std::memory_order_relaxed);
  return kOk;
}
