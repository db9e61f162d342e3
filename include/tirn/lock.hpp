// The locks as C++ types for std::lock_guard, std::unique_lock and std::shared_lock. Each owns its record, free from
// the beginning, which C code takes by native().
#ifndef TIRN_LOCK_HPP
#define TIRN_LOCK_HPP

#include "tirn/lock.h"

namespace tirn {

class SpinLock {
 public:
  constexpr SpinLock() = default;
  SpinLock(const SpinLock&) = delete;
  SpinLock& operator=(const SpinLock&) = delete;

  void lock() { kesa_spinlock_lock(&record_); }
  bool try_lock() { return kesa_spinlock_trylock(&record_) != 0; }
  void unlock() { kesa_spinlock_unlock(&record_); }
  kesa_spinlock* native() { return &record_; }

 private:
  kesa_spinlock record_ = KESA_SPINLOCK_INIT;
};

// Sleeps between bursts of attempts where kMayBlock is set. A writer cannot try.
template <bool kMayBlock>
class BasicRwLock {
 public:
  constexpr BasicRwLock() = default;
  BasicRwLock(const BasicRwLock&) = delete;
  BasicRwLock& operator=(const BasicRwLock&) = delete;

  void lock() { kMayBlock ? kesa_rwlock_write_lock_mayblock(&word_) : kesa_rwlock_write_lock(&word_); }
  void unlock() { kesa_rwlock_write_unlock(&word_); }
  void lock_shared() { kMayBlock ? kesa_rwlock_read_lock_mayblock(&word_) : kesa_rwlock_read_lock(&word_); }
  bool try_lock_shared() { return kesa_rwlock_try_read_lock(&word_) != 0; }
  void unlock_shared() { kesa_rwlock_read_unlock(&word_); }
  uint64_t* native() { return &word_; }

 private:
  uint64_t word_ = 0;
};
using RwLock = BasicRwLock<false>;
using BlockingRwLock = BasicRwLock<true>;

// What is told of misuse names the function that calls lock(), try_lock() or unlock(): that may be the guard's.
class TicketSpinLock {
 public:
  constexpr TicketSpinLock() = default;
  TicketSpinLock(const TicketSpinLock&) = delete;
  TicketSpinLock& operator=(const TicketSpinLock&) = delete;
  ~TicketSpinLock() { kesa_tspinlock_destroy(&record_); }

  void lock(const char* where = __builtin_FUNCTION(), uint32_t line = __builtin_LINE()) {
    do_kesa_tspinlock_lock(&record_, where, line);
  }
  bool try_lock(const char* where = __builtin_FUNCTION(), uint32_t line = __builtin_LINE()) {
    return do_kesa_tspinlock_trylock(&record_, where, line) != 0;
  }
  void unlock(const char* where = __builtin_FUNCTION(), uint32_t line = __builtin_LINE()) {
    do_kesa_tspinlock_unlock(&record_, where, line);
  }
  kesa_tspinlock* native() { return &record_; }

 private:
  kesa_tspinlock record_ = {{{0, 0}}, KESA_TSPINLOCK_MAGIC, UINT32_MAX, KESA_TSPINLOCK_NO_OWNER};
};

class TicketRwLock {
 public:
  constexpr TicketRwLock() = default;
  TicketRwLock(const TicketRwLock&) = delete;
  TicketRwLock& operator=(const TicketRwLock&) = delete;

  void lock() { do_kesa_trwlock_write_lock(&record_); }
  bool try_lock() { return do_kesa_trwlock_write_trylock(&record_) != 0; }
  void unlock() { do_kesa_trwlock_write_unlock(&record_); }
  void lock_shared() { do_kesa_trwlock_read_lock(&record_); }
  bool try_lock_shared() { return do_kesa_trwlock_read_trylock(&record_) != 0; }
  void unlock_shared() { do_kesa_trwlock_read_unlock(&record_); }
  kesa_trwlock* native() { return &record_; }

 private:
  kesa_trwlock record_ = {};
};

}  // namespace tirn

#endif
