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

static_assert(offsetof(kesa_ring, producer) == 128 && offsetof(kesa_ring, consumer) == 256 &&
              offsetof(kesa_ring, size) == 384 && sizeof(kesa_ring) == 512);

namespace {

using namespace tirn;
using std::atomic_ref;

constexpr uint32_t kBoth = KESA_RING_SINGLE_PRODUCER | KESA_RING_SINGLE_CONSUMER;

// Half the range away from where positions begin, so that a side's first use looks.
constexpr uint32_t kNotSeen = 0x80000000;

// At a tail, before the processor is given up. There is no hint to it between them: that would make seconds of these.
constexpr uint32_t kLooks = 0x8000000;

enum class Amount { kOne, kExactly, kAtMost };

enum class Claim { kRefused, kMade, kAboveWatermark };

// Positions that a call claims, and the other side's tail by which it may.
struct Run {
  uint32_t at;
  uint32_t count;
  uint32_t tail;
};

void copy_values(uint64_t* to, const uint64_t* from, uint32_t count) {
  for (; count >= 4; count -= 4, to += 4, from += 4) {
    std::memcpy(to, from, 4 * sizeof *to);
  }
  for (; count > 0; --count) {
    *to++ = *from++;
  }
}

// What the two sides differ in. `used` is how many values lie between a position of theirs and the other side's tail,
// `room` what that leaves them: free slots or values. Only differences of positions count, so all stays right across the
// wrap.
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

// What of so many wanted, from `at`, there is room for. Acquire: what the other side did with those slots is over.
template <class Side, Amount kAmount>
[[gnu::always_inline]] inline Claim grant(kesa_ring& ring, uint32_t mask, uint32_t wanted, uint32_t at, Run& run) {
  run.tail = atomic_ref(Side::other_tail(ring)).load(std::memory_order_acquire);
  const uint32_t used = Side::used(at, run.tail);
  const uint32_t room = Side::room(mask, used);
  run.at = at;
  run.count = kAmount == Amount::kAtMost ? std::min(wanted, room) : wanted;
  if (run.count > room || (run.count == 0 && wanted != 0)) {
    return Claim::kRefused;
  }
  return Side::is_above_watermark(ring, used, run.count) ? Claim::kAboveWatermark : Claim::kMade;
}

// The other side's tail is first taken as it was last seen, which spares that side its line. That copy can only be
// behind, so it serves as long as the result does not depend on it.
template <class Side, Amount kAmount>
[[gnu::always_inline]] inline Claim claim_alone(kesa_ring& ring, uint32_t mask, uint32_t wanted, Run& run) {
  auto& own = Side::own(ring);
  const atomic_ref head(own.head);
  run = {.at = head.load(std::memory_order_relaxed), .count = wanted, .tail = own.seen};
  const uint32_t used = Side::used(run.at, run.tail);
  Claim claim = Claim::kMade;
  if (used > mask || wanted > Side::room(mask, used) || Side::is_above_watermark(ring, used, wanted)) {
    claim = grant<Side, kAmount>(ring, mask, wanted, run.at, run);
    if (claim == Claim::kRefused) {
      return claim;
    }
    own.seen = run.tail;
  }
  head.store(run.at + run.count, std::memory_order_relaxed);
  return claim;
}

// The head is read before the other side's tail (acquire) and moved after (release): who sees a head sees a tail that
// had room for it, so the room is never below zero. It can be too large next to an old head, which is then not claimed.
template <class Side, Amount kAmount>
[[gnu::always_inline]] inline Claim claim_among_many(kesa_ring& ring, uint32_t mask, uint32_t wanted, Run& run) {
  const atomic_ref head(Side::own(ring).head);
  for (uint32_t at = head.load(std::memory_order_acquire);;) {
    const Claim claim = grant<Side, kAmount>(ring, mask, wanted, at, run);
    // `run.at` stays what was read, so that the slots' addresses are known before the swap is over.
    if (claim == Claim::kRefused ||
        head.compare_exchange_strong(at, at + run.count, std::memory_order_acq_rel, std::memory_order_acquire)) {
      return claim;
    }
  }
}

template <class Side, Amount kAmount>
[[gnu::always_inline]] inline void copy(kesa_ring& ring, uint32_t mask, const Run& run,
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

// Stores the tail when all who claimed before have. The looks acquire, so that what those did with their slots comes
// before this tail too. Gives `result` back, so that the call can be its caller's last.
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

template <class Side, Amount kAmount, bool kSingle>
[[gnu::always_inline]] inline uint32_t transfer_by(kesa_ring& ring, typename Side::Value* values, uint32_t wanted) {
  auto& own = Side::own(ring);
  const uint32_t mask = own.mask;
  Run run;
  const Claim claim = kSingle ? claim_alone<Side, kAmount>(ring, mask, wanted, run)
                              : claim_among_many<Side, kAmount>(ring, mask, wanted, run);
  if (claim == Claim::kRefused) {
    return kAmount == Amount::kAtMost ? 0 : Side::kRefused;
  }
  uint32_t result = kAmount == Amount::kAtMost ? run.count : kOk;
  if (claim == Claim::kAboveWatermark) [[unlikely]] {
    result = kAmount == Amount::kAtMost ? run.count | KESA_RING_ABOVE_WATERMARK : static_cast<uint32_t>(-EDQUOT);
  }
  copy<Side, kAmount>(ring, mask, run, values);
  if (!kSingle && atomic_ref(own.tail).load(std::memory_order_acquire) != run.at) {
    return publish_in_turn(own.tail, run.at, run.count, result);
  }
  atomic_ref(own.tail).store(run.at + run.count, std::memory_order_release);
  return result;
}

template <class Side, Amount kAmount>
[[gnu::always_inline]] inline uint32_t transfer(kesa_ring& ring, typename Side::Value* values, uint32_t wanted) {
  return Side::is_single(ring) ? transfer_by<Side, kAmount, true>(ring, values, wanted)
                               : transfer_by<Side, kAmount, false>(ring, values, wanted);
}

// Under the caller's name.
[[gnu::cold, gnu::noinline]] uint32_t tell_null(const char* function = __builtin_FUNCTION()) {
  TIRN_LOG_AS(kModule, kError, function, "Kesa ring id is NULL.");
  return kFailU32;
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
    TIRN_ERROR("kesa_ring_create:uiCount must be a power of 2 or great than MAX");
    return nullptr;
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
                    .seen = kNotSeen};
  ring->consumer = {.singleConsumer = ring->flags & KESA_RING_SINGLE_CONSUMER,
                    .size = count,
                    .mask = mask,
                    .head = 0,
                    .tail = 0,
                    .seen = kNotSeen};
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
  return n == 0 ? 0 : transfer<Consumers, Amount::kAtMost>(*ring, values, n);
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
