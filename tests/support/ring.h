// Rings that free themselves, with positions that begin anywhere.
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

}  // namespace tirn::test

#endif
