// The word read-write lock: forms that spin, and forms that also sleep.
#include <atomic>

#include "libtirn/arch/arch.h"
#include "libtirn/base/cancellation.h"
#include "tirn/lock.h"
#include "tirn/sched.h"

using namespace tirn;

namespace {

constexpr uint64_t kFree = 0;
constexpr uint64_t kWriterSpinning = UINT64_MAX;          // the mark of kesa_rwlock_write_lock
constexpr uint64_t kWriterBlocking = KESA_RWLOCK_WRITER;  // the mark of kesa_rwlock_write_lock_mayblock
constexpr int kBurst = 10;                                // attempts between two sleeps
constexpr uint32_t kSleep = 1;                            // microseconds

// Takes a read hold and returns whether it did. Gives up if a writer holds the lock, and tries again if another
// thread has changed the word. The acquires here and in take_for_writing pair with the releases in
// kesa_rwlock_read_unlock and kesa_rwlock_write_unlock.
inline bool take_for_reading(uint64_t* rwlock) {
  const std::atomic_ref word(*rwlock);
  uint64_t value = word.load(std::memory_order_relaxed);
  while ((value & KESA_RWLOCK_WRITER) == 0) {
    if (word.compare_exchange_weak(value, value + 1, std::memory_order_acq_rel, std::memory_order_relaxed)) {
      return true;
    }
  }
  return false;
}

inline bool take_for_writing(uint64_t* rwlock, uint64_t mark, std::memory_order order) {
  const std::atomic_ref word(*rwlock);
  uint64_t value = word.load(std::memory_order_relaxed);
  return value == kFree && word.compare_exchange_weak(value, mark, order, std::memory_order_relaxed);
}

template <typename Attempt>
inline void take_in_bursts(Attempt attempt) {
  while (true) {
    for (int i = 0; i < kBurst; ++i) {
      if (attempt()) {
        return;
      }
    }
    const NoCancellation guard;  // a cancelled thread would leave the caller's other locks held
    kesa_usleep(kSleep);
  }
}

}  // namespace

int kesa_rwlock_try_read_lock(uint64_t* rwlock) { return take_for_reading(rwlock) ? 1 : 0; }

void kesa_rwlock_read_lock(uint64_t* rwlock) {
  arch::fetch_to_write(rwlock);
  while (!take_for_reading(rwlock)) {
    arch::spin_hint();
  }
}

void kesa_rwlock_write_lock(uint64_t* rwlock) {
  arch::fetch_to_write(rwlock);
  while (!take_for_writing(rwlock, kWriterSpinning, std::memory_order_acq_rel)) {
    arch::spin_hint();
  }
}

void kesa_rwlock_read_lock_mayblock(uint64_t* rwlock) {
  take_in_bursts([rwlock] { return take_for_reading(rwlock); });
}

void kesa_rwlock_write_lock_mayblock(uint64_t* rwlock) {
  take_in_bursts([rwlock] { return take_for_writing(rwlock, kWriterBlocking, std::memory_order_acquire); });
}
