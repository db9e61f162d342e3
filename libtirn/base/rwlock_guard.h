// A hold of a word read-write lock, given back by release() or at the end of the scope. The thread cannot be
// cancelled until the end of the scope: neither the lock nor what the scope holds beside it may be lost.
#ifndef TIRN_BASE_RWLOCK_GUARD_H
#define TIRN_BASE_RWLOCK_GUARD_H

#include <cstdint>

#include "libtirn/base/guard.h"
#include "tirn/lock.h"

namespace tirn {

class RwlockHold {
 public:
  // The ways of taking the lock: kRead and kWrite only spin, the others also sleep.
  enum Kind { kRead, kReadMayblock, kWrite, kWriteMayblock };

  RwlockHold(uint64_t& rwlock, Kind kind) : rwlock_(&rwlock), kind_(kind) { kTake[kind](rwlock_); }
  RwlockHold(const RwlockHold&) = delete;
  RwlockHold& operator=(const RwlockHold&) = delete;
  ~RwlockHold() { release(); }

  void release() {
    if (rwlock_ != nullptr) {
      const bool is_reader = kind_ == kRead || kind_ == kReadMayblock;
      is_reader ? kesa_rwlock_read_unlock(rwlock_) : kesa_rwlock_write_unlock(rwlock_);
      rwlock_ = nullptr;
    }
  }

 private:
  static constexpr void (*kTake[])(uint64_t*) = {kesa_rwlock_read_lock, kesa_rwlock_read_lock_mayblock,
                                                 kesa_rwlock_write_lock, kesa_rwlock_write_lock_mayblock};

  const NoCancellation guard_;
  uint64_t* rwlock_;
  const Kind kind_;
};

}  // namespace tirn

#endif
