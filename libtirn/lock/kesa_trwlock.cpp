// The ticket read-write lock, which serves in order of arrival.
#include <atomic>
#include <bit>

#include "libtirn/arch/arch.h"
#include "tirn/lock.h"

using namespace tirn;

static_assert(sizeof(kesa_trwlock) == 16 && offsetof(kesa_trwlock, writers_released) == 4 &&
              offsetof(kesa_trwlock, tickets) == 8 && offsetof(kesa_trwlock, writer_tickets) == 12);
static_assert(std::endian::native == std::endian::little, "a pair's first field is its low half");

namespace {

// Each word has two counters: readers and writers together in the low half, writers alone in the high half.
constexpr uint32_t all(uint64_t pair) { return static_cast<uint32_t>(pair); }
constexpr uint32_t writers(uint64_t pair) { return static_cast<uint32_t>(pair >> 32); }

// Returns the pair after one more reader or writer. Each half wraps by itself: an addition to the whole word would
// carry from the low half into the high one.
constexpr uint64_t counted(uint64_t pair, uint32_t of_writers) {
  return uint64_t{writers(pair) + of_writers} << 32 | uint32_t{all(pair) + 1};
}

constexpr uint32_t kReader = 0;  // what each kind adds to the writers' counter
constexpr uint32_t kWriter = 1;

// Tries to count one more reader or writer in `word`. Returns false, with the word's present value in `pair`, if
// another thread has changed the word or the weak exchange failed.
inline bool count(uint64_t& word, uint64_t& pair, uint32_t of_writers) {
  return std::atomic_ref(word).compare_exchange_weak(pair, counted(pair, of_writers), std::memory_order_acq_rel,
                                                     std::memory_order_relaxed);
}

// Counts one more reader or writer and returns the pair as it was. On `released_pair`, the release in here pairs with
// the acquire in released().
inline uint64_t add(uint64_t& word, uint32_t of_writers) {
  uint64_t pair = std::atomic_ref(word).load(std::memory_order_relaxed);
  while (!count(word, pair, of_writers)) {
  }
  return pair;
}

inline uint64_t released(kesa_trwlock& lock) {
  return std::atomic_ref(lock.released_pair).load(std::memory_order_acquire);
}

// Takes a ticket and waits until all earlier tickets that `half` counts are released.
//
// As in the ticket spinlock, no full barrier is needed: what the lock guards is accessed after an acquire load of
// `released_pair` and before a release increment of it.
template <uint32_t (*half)(uint64_t)>
inline void take(kesa_trwlock& lock, uint32_t of_writers) {
  const uint32_t earlier = half(add(lock.tickets_pair, of_writers));
  while (half(released(lock)) != earlier) {
    arch::spin_hint();
  }
}

template <uint32_t (*half)(uint64_t)>
inline int try_take(kesa_trwlock& lock, uint32_t of_writers) {
  uint64_t tickets = std::atomic_ref(lock.tickets_pair).load(std::memory_order_relaxed);
  do {
    if (half(tickets) != half(released(lock))) {
      return 0;
    }
  } while (!count(lock.tickets_pair, tickets, of_writers));
  return 1;
}

}  // namespace

void do_kesa_trwlock_init(kesa_trwlock* lock) {
  std::atomic_ref(lock->released_pair).store(0, std::memory_order_relaxed);
  std::atomic_ref(lock->tickets_pair).store(0, std::memory_order_relaxed);
}

void do_kesa_trwlock_read_lock(kesa_trwlock* lock) { take<writers>(*lock, kReader); }
int do_kesa_trwlock_read_trylock(kesa_trwlock* lock) { return try_take<writers>(*lock, kReader); }
void do_kesa_trwlock_read_unlock(kesa_trwlock* lock) { add(lock->released_pair, kReader); }

void do_kesa_trwlock_write_lock(kesa_trwlock* lock) { take<all>(*lock, kWriter); }
int do_kesa_trwlock_write_trylock(kesa_trwlock* lock) { return try_take<all>(*lock, kWriter); }
void do_kesa_trwlock_write_unlock(kesa_trwlock* lock) { add(lock->released_pair, kWriter); }

void do_kesa_trwlock_destroy(kesa_trwlock*) {}
