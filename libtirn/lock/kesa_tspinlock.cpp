// The ticket spinlock, which serves in order of arrival and logs misuse.
#include <atomic>
#include <bit>

#include "libtirn/arch/arch.h"
#include "libtirn/base/log.h"
#include "tirn/lock.h"
#include "tirn/thread.h"

using namespace tirn;

static_assert(sizeof(kesa_tspinlock) == 24 && offsetof(kesa_tspinlock, next) == 4 &&
              offsetof(kesa_tspinlock, magic) == 8 && offsetof(kesa_tspinlock, owner) == 16);
static_assert(std::endian::native == std::endian::little, "the pair's first field is its low half");

namespace {

using std::atomic_ref;

// Relaxed access to a word whose value orders nothing. A stale value does no more harm than one misuse report too
// many or too few, or a failed attempt.
template <typename Word>
inline Word plain(Word& word) {
  return atomic_ref(word).load(std::memory_order_relaxed);
}
template <typename Word>
inline void set_plain(Word& word, Word value) {
  atomic_ref(word).store(value, std::memory_order_relaxed);
}

struct Caller {
  const char* function;  // the log line is written under this name
  const char* where;
  uint32_t line;
  uint32_t source_line;  // of the function that logs
};

__attribute__((cold, noinline)) void tell_misuse(const char* what, kesa_tspinlock& lock, Caller caller) {
  if (hurn_level_check(kModule, kInfo) == 0) {
    TIRN_LOG_WRITE(kModule, kInfo, kFile.text, caller.source_line, caller.function,
                   "%s in %s:%u lock:0x%lx magic:0x%x owner:%lu other:%u", what, caller.where, caller.line,
                   plain(lock.turns), plain(lock.magic), plain(lock.owner), plain(lock.other));
  }
}

inline bool is_initialised(kesa_tspinlock& lock) { return plain(lock.magic) == KESA_TSPINLOCK_MAGIC; }

inline void check_initialised(kesa_tspinlock& lock, const Caller& caller) {
  if (!is_initialised(lock)) [[unlikely]] {
    tell_misuse("UnInited lock", lock, caller);
  }
}

inline void check_on_the_way_in(kesa_tspinlock& lock, uint32_t self, const Caller& caller) {
  check_initialised(lock, caller);
  if (plain(lock.owner) == self) [[unlikely]] {
    tell_misuse("AA lock", lock, caller);
  }
}

}  // namespace

void do_kesa_tspinlock_init(kesa_tspinlock* lock, const char* where, uint32_t line) {
  if (is_initialised(*lock)) {
    tell_misuse("ReInited lock", *lock, {__func__, where, line, __LINE__});
  }
  set_plain(lock->serving, 0u);
  set_plain(lock->next, 0u);
  set_plain(lock->magic, KESA_TSPINLOCK_MAGIC);
  set_plain(lock->other, UINT32_MAX);
  set_plain(lock->owner, KESA_TSPINLOCK_NO_OWNER);
}

// No full barrier is needed: what the lock guards is accessed only after an acquiring load of `serving` has shown the
// own ticket, and before the releasing increment of `serving`. Nothing depends on the order between taking a ticket
// and other accesses. So the lock is also correct where an increment is a loop of exclusive loads and stores (AArch64
// without the large-system extension), past whose end later loads may move.
void do_kesa_tspinlock_lock(kesa_tspinlock* lock, const char* where, uint32_t line) {
  arch::fetch_to_write(lock);
  const uint32_t self = kesa_thread_get_knl_tid();
  check_on_the_way_in(*lock, self, {__func__, where, line, __LINE__});
  const uint32_t ticket = atomic_ref(lock->next).fetch_add(1, std::memory_order_acq_rel);
  while (atomic_ref(lock->serving).load(std::memory_order_acquire) != ticket) {
    arch::spin_hint();  // twice: each read takes the cache line away from the holder, which has to write it
    arch::spin_hint();
  }
  set_plain(lock->owner, uint64_t{self});
}

int do_kesa_tspinlock_trylock(kesa_tspinlock* lock, const char* where, uint32_t line) {
  const uint32_t self = kesa_thread_get_knl_tid();
  check_on_the_way_in(*lock, self, {__func__, where, line, __LINE__});
  uint32_t ticket;
  do {
    ticket = plain(lock->next);
    if (atomic_ref(lock->serving).load(std::memory_order_acquire) != ticket) {
      return 0;
    }
  } while (!atomic_ref(lock->next)
                .compare_exchange_weak(ticket, ticket + 1, std::memory_order_acq_rel, std::memory_order_relaxed));
  set_plain(lock->owner, uint64_t{self});
  return 1;
}

void do_kesa_tspinlock_unlock(kesa_tspinlock* lock, const char* where, uint32_t line) {
  arch::fetch_to_write(lock);
  check_initialised(*lock, {__func__, where, line, __LINE__});
  if (plain(lock->owner) != kesa_thread_get_knl_tid()) [[unlikely]] {
    tell_misuse("AB lock", *lock, {__func__, where, line, __LINE__});
  }
  const bool is_held = plain(lock->next) != plain(lock->serving);
  set_plain(lock->owner, KESA_TSPINLOCK_NO_OWNER);
  if (!is_held) [[unlikely]] {
    tell_misuse("ReUnlock", *lock, {"ticket_unlock", where, line, __LINE__});
  }
  atomic_ref(lock->serving).fetch_add(1, std::memory_order_acq_rel);  // pairs with the acquires in lock and trylock
}

void do_kesa_tspinlock_destroy(kesa_tspinlock* lock, const char* where, uint32_t line) {
  check_initialised(*lock, {__func__, where, line, __LINE__});
  set_plain(lock->magic, KESA_TSPINLOCK_DESTROYED);
}
