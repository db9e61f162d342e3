// Calls the rings of other libraries.
#include <cstdlib>
#include <cstring>

#include "peers/peers.h"

#ifdef PEERS_CK
#define false 0  // a function of this header returns false as a pointer
#include <ck_ring.h>
#undef false
#endif
#ifdef PEERS_DPDK
#include <rte_config.h>
#include <rte_ring.h>
#endif
#ifdef PEERS_BOOST
#include <boost/lockfree/queue.hpp>
#include <boost/lockfree/spsc_queue.hpp>
#endif

namespace {

constexpr unsigned kSlots = PEER_RING_SLOTS;

[[maybe_unused]] void* as_pointer(uint64_t value) {
  return reinterpret_cast<void*>(value);  // NOLINT(performance-no-int-to-ptr): these rings carry only pointers
}

#ifdef PEERS_DPDK
template <unsigned kFlags>
void* rte_make() {
  const auto size = static_cast<size_t>(rte_ring_get_memsize(kSlots));
  auto* const made = static_cast<rte_ring*>(aligned_alloc(128, (size + 127) / 128 * 128));
  rte_ring_init(made, "peer", kSlots, kFlags);
  return made;
}
rte_ring* rte(void* ring) { return static_cast<rte_ring*>(ring); }

int rte_push(void* ring, uint64_t value) { return rte_ring_enqueue(rte(ring), as_pointer(value)) == 0; }
int rte_pop(void* ring, uint64_t* value) { return rte_ring_dequeue(rte(ring), reinterpret_cast<void**>(value)) == 0; }
unsigned rte_push_burst(void* ring, const uint64_t* values, unsigned n) {
  return rte_ring_enqueue_burst(rte(ring), reinterpret_cast<void* const*>(values), n, nullptr);
}
unsigned rte_pop_burst(void* ring, uint64_t* values, unsigned n) {
  return rte_ring_dequeue_burst(rte(ring), reinterpret_cast<void**>(values), n, nullptr);
}
int rte_sp_push(void* ring, uint64_t value) { return rte_ring_sp_enqueue(rte(ring), as_pointer(value)) == 0; }
int rte_sc_pop(void* ring, uint64_t* value) {
  return rte_ring_sc_dequeue(rte(ring), reinterpret_cast<void**>(value)) == 0;
}
#endif

#ifdef PEERS_CK
struct CkRing {
  ck_ring_t ring;
  ck_ring_buffer_t slots[kSlots];
};
void* ck_make() {
  auto* const made = new CkRing;
  ck_ring_init(&made->ring, kSlots);
  return made;
}
template <auto kPush>
int ck_push(void* ring, uint64_t value) {
  auto* const to = static_cast<CkRing*>(ring);
  return kPush(&to->ring, to->slots, as_pointer(value));
}
template <auto kPop>
int ck_pop(void* ring, uint64_t* value) {
  auto* const from = static_cast<CkRing*>(ring);
  return kPop(&from->ring, from->slots, value);
}
#endif

#ifdef PEERS_BOOST
namespace lockfree = boost::lockfree;
using Spsc = lockfree::spsc_queue<uint64_t, lockfree::capacity<kSlots - 1>>;
using Queue = lockfree::queue<uint64_t, lockfree::capacity<kSlots - 1>>;

template <class Ring>
void* boost_make() {
  return new Ring;
}
template <class Ring>
int boost_push(void* ring, uint64_t value) {
  return static_cast<Ring*>(ring)->push(value);
}
template <class Ring>
int boost_pop(void* ring, uint64_t* value) {
  return static_cast<Ring*>(ring)->pop(*value);
}
unsigned spsc_push_burst(void* ring, const uint64_t* values, unsigned n) {
  return static_cast<unsigned>(static_cast<Spsc*>(ring)->push(values, n));
}
unsigned spsc_pop_burst(void* ring, uint64_t* values, unsigned n) {
  return static_cast<unsigned>(static_cast<Spsc*>(ring)->pop(values, n));
}
#endif

const peer_ring rings[] = {
#ifdef PEERS_DPDK
    {"rte_ring, single", rte_make<RING_F_SP_ENQ | RING_F_SC_DEQ>, rte_push, rte_pop, rte_push_burst, rte_pop_burst},
    {"rte_ring, many", rte_make<0>, rte_push, rte_pop, rte_push_burst, rte_pop_burst},
    {"rte_ring_sp, _sc", rte_make<RING_F_SP_ENQ | RING_F_SC_DEQ>, rte_sp_push, rte_sc_pop, nullptr, nullptr},
#endif
#ifdef PEERS_CK
    {"ck_ring, spsc", ck_make, ck_push<ck_ring_enqueue_spsc>, ck_pop<ck_ring_dequeue_spsc>, nullptr, nullptr},
    {"ck_ring, mpmc", ck_make, ck_push<ck_ring_enqueue_mpmc>, ck_pop<ck_ring_dequeue_mpmc>, nullptr, nullptr},
#endif
#ifdef PEERS_BOOST
    {"boost spsc_queue", boost_make<Spsc>, boost_push<Spsc>, boost_pop<Spsc>, spsc_push_burst, spsc_pop_burst},
    {"boost queue", boost_make<Queue>, boost_push<Queue>, boost_pop<Queue>, nullptr, nullptr},
#endif
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr}};

}  // namespace

const peer_ring* peer_ring_named(const char* name) {
  const peer_ring* ring = rings;
  while (ring->name != nullptr && strcmp(ring->name, name) != 0) {
    ++ring;
  }
  return ring->name != nullptr ? ring : nullptr;
}
