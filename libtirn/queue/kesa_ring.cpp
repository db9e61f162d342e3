// Implements the ring of 64-bit values of tirn/queue.h.
#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "tirn/queue.h"
#include "tirn/sched.h"

using namespace tirn;

static_assert(offsetof(kesa_ring, producer) == 128 && offsetof(kesa_ring, consumer) == 256 &&
              offsetof(kesa_ring, size) == 384 && sizeof(kesa_ring) == 512);

namespace {

using std::atomic_ref;

constexpr uint32_t kBoth = KESA_RING_SINGLE_PRODUCER | KESA_RING_SINGLE_CONSUMER;

// How often a thread reads a tail before it yields the processor. There is no pause instruction between the reads:
// with one, so many of them would take seconds.
constexpr uint32_t kLooks = 0x8000000;

enum class Amount { kOne, kExactly, kAtMost };

enum class Outcome { kRefused, kMade, kAboveWatermark };

// The positions that a call claims: `count` of them from `at`. It could claim up to `room`.
struct Run {
  uint32_t at;
  uint32_t count;
  uint32_t room;
};

void copy_values(uint64_t* to, const uint64_t* from, uint32_t count) {
  for (; count >= 4; count -= 4, to += 4, from += 4) {
    std::memcpy(to, from, 4 * sizeof *to);
  }
  for (; count > 0; --count) {
    *to++ = *from++;
  }
}

// Producers and Consumers hold what the two sides do differently. `used` returns the number of values between a
// position of this side and the other side's tail. `room` returns how many positions that leaves to claim: free slots
// for producers, values for consumers. Only differences of positions are used, so the results are right when
// positions wrap.
struct Producers {
  using Value = const uint64_t;
  static constexpr uint32_t kRefused = static_cast<uint32_t>(-ENOBUFS);
  static auto& own(kesa_ring& ring) { return ring.producer; }
  static uint32_t& other_tail(kesa_ring& ring) { return ring.consumer.tail; }
  static bool is_single(const kesa_ring& ring) { return ring.producer.singleProducer != 0; }
  static uint32_t used(uint32_t at, uint32_t other_tail) { return at - other_tail; }
  static uint32_t room(uint32_t mask, uint32_t used) { return mask - used; }
  static void copy(uint64_t* slots, const uint64_t* values, uint32_t count) { copy_values(slots, values, count); }
  static bool is_above_watermark(const kesa_ring& ring, uint32_t used, uint32_t count) {
    return count + used + 1 > ring.producer.watermark;
  }
};

struct Consumers {
  using Value = uint64_t;
  static constexpr uint32_t kRefused = static_cast<uint32_t>(-ENOENT);
  static auto& own(kesa_ring& ring) { return ring.consumer; }
  static uint32_t& other_tail(kesa_ring& ring) { return ring.producer.tail; }
  static bool is_single(const kesa_ring& ring) { return ring.consumer.singleConsumer != 0; }
  static uint32_t used(uint32_t at, uint32_t other_tail) { return other_tail - at; }
  static uint32_t room(uint32_t /*mask*/, uint32_t used) { return used; }
  static void copy(const uint64_t* slots, uint64_t* values, uint32_t count) { copy_values(values, slots, count); }
  static bool is_above_watermark(const kesa_ring&, uint32_t, uint32_t) { return false; }
};

// Decides how many of the `wanted` positions from `at` may be claimed. The acquire load makes sure that the other
// side has finished with the slots before its tail.
template <class Side, Amount kAmount>
[[gnu::always_inline]] inline Outcome grant(kesa_ring& ring, uint32_t mask, uint32_t wanted, uint32_t at, Run& run) {
  const uint32_t used = Side::used(at, atomic_ref(Side::other_tail(ring)).load(std::memory_order_acquire));
  const uint32_t room = Side::room(mask, used);
  run = {.at = at, .count = kAmount == Amount::kAtMost ? std::min(wanted, room) : wanted, .room = room};
  if (run.count > room || run.count == 0) {
    return Outcome::kRefused;
  }
  return Side::is_above_watermark(ring, used, run.count) ? Outcome::kAboveWatermark : Outcome::kMade;
}

// Claims positions on a side that has a single thread. Uses up the room seen at the last read of the other side's
// tail before reading it again: this saves a cache-line transfer, and the room only grows meanwhile. No other thread
// reads the head, so it needs no order.
template <class Side, Amount kAmount>
[[gnu::always_inline]] inline Outcome claim_alone(kesa_ring& ring, uint32_t mask, uint32_t wanted, Run& run) {
  auto& own = Side::own(ring);
  const atomic_ref head(own.head);
  run = {.at = head.load(std::memory_order_relaxed), .count = wanted, .room = own.spare};
  Outcome outcome = Outcome::kMade;
  if (wanted > run.room || Side::is_above_watermark(ring, mask - run.room, wanted)) {
    outcome = grant<Side, kAmount>(ring, mask, wanted, run.at, run);
    if (outcome == Outcome::kRefused) {
      return outcome;
    }
  }
  own.spare = run.room - run.count;
  head.store(run.at + run.count, std::memory_order_relaxed);
  return outcome;
}

// Claims positions on a side that has many threads. The acquire load of the head comes before the read of the other
// side's tail, and the release in the swap comes after it. A thread that sees a head therefore sees a tail that had
// room for it, so the room is never below zero. With an outdated head the room can be too large, but then the swap
// fails: each claim moves the head, and it has the same value again only after 2^32 positions.
template <class Side, Amount kAmount>
[[gnu::always_inline]] inline Outcome claim_among_many(kesa_ring& ring, uint32_t mask, uint32_t wanted, Run& run) {
  const atomic_ref head(Side::own(ring).head);
  for (uint32_t at = head.load(std::memory_order_acquire);;) {
    const Outcome outcome = grant<Side, kAmount>(ring, mask, wanted, at, run);
    // `run.at` is the value that was read, so the slots' addresses are known before the swap completes.
    if (outcome == Outcome::kRefused ||
        head.compare_exchange_strong(at, at + run.count, std::memory_order_acq_rel, std::memory_order_acquire)) {
      return outcome;
    }
  }
}

template <class Side, Amount kAmount>
[[gnu::always_inline]] inline void copy_run(kesa_ring& ring, uint32_t mask, const Run& run,
                                            typename Side::Value* values) {
  auto* const slots = reinterpret_cast<uint64_t*>(&ring + 1);
  const uint32_t index = run.at & mask;
  if constexpr (kAmount == Amount::kOne) {
    Side::copy(slots + index, values, 1);
  } else {
    const uint32_t to_the_end = std::min(run.count, Side::own(ring).size - index);
    Side::copy(slots + index, values, to_the_end);
    Side::copy(slots, values + to_the_end, run.count - to_the_end);
  }
}

// Stores the tail once all threads with earlier claims have stored theirs. The loads acquire, so that this tail also
// comes after what those threads did with their slots. Returns `result`, so that the caller ends in a tail call.
[[gnu::noinline]] uint32_t publish_in_turn(uint32_t& word, uint32_t at, uint32_t count, uint32_t result) {
  const atomic_ref tail(word);
  for (uint32_t looks = 0; tail.load(std::memory_order_acquire) != at;) {
    if (++looks == kLooks) {
      kesa_yield();
      looks = 0;
    }
  }
  tail.store(at + count, std::memory_order_release);
  return result;
}

// Claims positions, copies the values and stores the tail. The release store of the tail pairs with the acquire load
// in grant() on the other side: the slots are read or written before the tail passes them on.
template <class Side, Amount kAmount, bool kSingle>
[[gnu::always_inline]] inline uint32_t transfer_by(kesa_ring& ring, typename Side::Value* values, uint32_t wanted) {
  auto& own = Side::own(ring);
  const uint32_t mask = own.mask;
  Run run;
  const Outcome outcome = kSingle ? claim_alone<Side, kAmount>(ring, mask, wanted, run)
                                  : claim_among_many<Side, kAmount>(ring, mask, wanted, run);
  if (outcome == Outcome::kRefused) {
    return kAmount == Amount::kAtMost ? 0 : Side::kRefused;
  }
  uint32_t result = kAmount == Amount::kAtMost ? run.count : kOk;
  if (outcome == Outcome::kAboveWatermark) [[unlikely]] {
    result = kAmount == Amount::kAtMost ? run.count | KESA_RING_ABOVE_WATERMARK : static_cast<uint32_t>(-EDQUOT);
  }
  copy_run<Side, kAmount>(ring, mask, run, values);
  const atomic_ref tail(own.tail);
  if (!kSingle && tail.load(std::memory_order_acquire) != run.at) {
    return publish_in_turn(own.tail, run.at, run.count, result);
  }
  tail.store(run.at + run.count, std::memory_order_release);
  return result;
}

template <class Side, Amount kAmount>
[[gnu::always_inline]] inline uint32_t transfer(kesa_ring& ring, typename Side::Value* values, uint32_t wanted) {
  if (kAmount != Amount::kOne && wanted == 0) {
    // Claiming zero positions does not move the head; another thread could claim the same position, and our tail
    // store could move the tail back.
    return kOk;
  }
  return Side::is_single(ring) ? transfer_by<Side, kAmount, true>(ring, values, wanted)
                               : transfer_by<Side, kAmount, false>(ring, values, wanted);
}

// Logs a NULL ring under the name of the calling function.
[[gnu::cold, gnu::noinline]] uint32_t tell_null(const char* function = __builtin_FUNCTION()) {
  return TIRN_ERROR_AS(function, "Kesa ring id is NULL."), kFailU32;
}

uint32_t plain(const uint32_t& word) {
  return atomic_ref(const_cast<uint32_t&>(word)).load(std::memory_order_relaxed);
}

uint32_t free_of(const kesa_ring& ring) {
  return (plain(ring.consumer.tail) - 1 - plain(ring.producer.tail)) & ring.producer.mask;
}

}  // namespace

kesa_ring* kesa_ring_create(uint32_t count, uint32_t flags) {
  if (!std::has_single_bit(count) || count > KESA_RING_MAX_COUNT) {
    return TIRN_ERROR("kesa_ring_create:uiCount must be a power of 2 or great than MAX"), nullptr;
  }
  auto* const ring = static_cast<kesa_ring*>(malloc(sizeof(kesa_ring) + uint64_t{count} * sizeof(uint64_t)));
  if (ring == nullptr) {
    return nullptr;
  }
  *ring = {};
  ring->flags = flags == KESA_RING_SINGLE_BOTH ? kBoth : flags;
  const uint32_t mask = count - 1;
  ring->producer = {.watermark = count,
                    .singleProducer = ring->flags & KESA_RING_SINGLE_PRODUCER,
                    .size = count,
                    .mask = mask,
                    .head = 0,
                    .tail = 0,
                    .spare = 0};
  ring->consumer = {.singleConsumer = ring->flags & KESA_RING_SINGLE_CONSUMER,
                    .size = count,
                    .mask = mask,
                    .head = 0,
                    .tail = 0,
                    .spare = 0};
  ring->size = count;
  ring->mask = mask;
  return ring;
}

void kesa_ring_delete(kesa_ring** ring) {
  if (ring != nullptr) {
    free(*ring);
    *ring = nullptr;
  }
}

int kesa_ring_enqueue(kesa_ring* ring, uint64_t value) {
  return static_cast<int>(ring != nullptr ? transfer<Producers, Amount::kOne>(*ring, &value, 1) : tell_null());
}

int kesa_ring_dequeue(kesa_ring* ring, uint64_t* value) {
  return static_cast<int>(ring != nullptr ? transfer<Consumers, Amount::kOne>(*ring, value, 1) : tell_null());
}

int kesa_ring_enqueue_bulk(kesa_ring* ring, const uint64_t* values, uint32_t n) {
  return static_cast<int>(transfer<Producers, Amount::kExactly>(*ring, values, n));
}

int kesa_ring_dequeue_bulk(kesa_ring* ring, uint64_t* values, uint32_t n) {
  return static_cast<int>(transfer<Consumers, Amount::kExactly>(*ring, values, n));
}

uint32_t kesa_ring_enqueue_burst(kesa_ring* ring, const uint64_t* values, uint32_t n) {
  return transfer<Producers, Amount::kAtMost>(*ring, values, n);
}

uint32_t kesa_ring_dequeue_burst(kesa_ring* ring, uint64_t* values, uint32_t n) {
  return transfer<Consumers, Amount::kAtMost>(*ring, values, n);
}

uint32_t kesa_ring_full(const kesa_ring* ring) { return ring != nullptr ? free_of(*ring) == 0 : tell_null(); }

uint32_t kesa_ring_empty(const kesa_ring* ring) {
  return ring != nullptr ? plain(ring->producer.tail) == plain(ring->consumer.tail) : tell_null();
}

uint32_t kesa_ring_count(const kesa_ring* ring) {
  return ring != nullptr ? (plain(ring->producer.tail) - plain(ring->consumer.tail)) & ring->producer.mask
                         : tell_null();
}

uint32_t kesa_ring_free_count(const kesa_ring* ring) { return ring != nullptr ? free_of(*ring) : tell_null(); }

uint32_t kesa_ring_size(const kesa_ring* ring) { return ring != nullptr ? ring->producer.mask + 1 : tell_null(); }
