// Rings that free themselves and whose positions may start anywhere.
#ifndef TIRN_TEST_RING_H
#define TIRN_TEST_RING_H

#include <memory>

#include "tirn/queue.h"

namespace tirn::test {

struct DeleteRing {
  void operator()(kesa_ring* ring) const { kesa_ring_delete(&ring); }
};
using Ring = std::unique_ptr<kesa_ring, DeleteRing>;

inline Ring ring_from(uint32_t position, uint32_t count, uint32_t flags) {
  Ring ring(kesa_ring_create(count, flags));
  ring->producer.head = ring->producer.tail = position;
  ring->consumer.head = ring->consumer.tail = position;
  return ring;
}

enum Form : unsigned { kOne, kBulk, kBurst, kForms };

// Calls one form of enqueue or dequeue and returns its result. `n` must be 1 for kOne.
inline int call(kesa_ring* ring, bool puts, Form form, uint64_t* values, uint32_t n) {
  switch (form) {
    case kOne:
      return puts ? kesa_ring_enqueue(ring, *values) : kesa_ring_dequeue(ring, values);
    case kBulk:
      return puts ? kesa_ring_enqueue_bulk(ring, values, n) : kesa_ring_dequeue_bulk(ring, values, n);
    default:
      return static_cast<int>(puts ? kesa_ring_enqueue_burst(ring, values, n)
                                   : kesa_ring_dequeue_burst(ring, values, n));
  }
}

}  // namespace tirn::test

#endif
