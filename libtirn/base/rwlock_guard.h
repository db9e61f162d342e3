// A hold of a word read-write lock, given back at the end of the scope or before.
#ifndef TIRN_BASE_RWLOCK_GUARD_H
#define TIRN_BASE_RWLOCK_GUARD_H

#include <cstdint>

#include "tirn/lock.h"

namespace tirn {

// Its unlocking knows how it was taken; the plain kinds spin, the others also sleep.
class RwlockHold {
 public:
  enum Kind { kRead, kReadMayblock, kWrite, kWriteMayblock };

  RwlockHold(uint64_t& rwlock, Kind kind) : rwlock_(&rwlock), kind_(kind) {
    switch (kind) {
      case kRead:
        return kesa_rwlock_read_lock(rwlock_);
      case kReadMayblock:
        return kesa_rwlock_read_lock_mayblock(rwlock_);
      case kWrite:
        return kesa_rwlock_write_lock(rwlock_);
      case kWriteMayblock:
        return kesa_rwlock_write_lock_mayblock(rwlock_);
    }
  }
  RwlockHold(const RwlockHold&) = delete;
  RwlockHold& operator=(const RwlockHold&) = delete;
  ~RwlockHold() { release(); }

  void release() {
    if (rwlock_ == nullptr) {
      return;
    }
    if (kind_ == kRead || kind_ == kReadMayblock) {
      kesa_rwlock_read_unlock(rwlock_);
    } else {
      kesa_rwlock_write_unlock(rwlock_);
    }
    rwlock_ = nullptr;
  }

 private:
  uint64_t* rwlock_;
  const Kind kind_;
};

}  // namespace tirn

#endif
