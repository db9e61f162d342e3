// Measures the ring on one thread, between two cores, and with more threads than cores.
#include <sched.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "peers/peers.h"
#include "support/bench.h"
#include "support/machine.h"
#include "tirn/queue.h"

namespace tirn::bench {
namespace {

constexpr unsigned kMostAtOnce = 32;
const uint64_t values_to_push[kMostAtOnce] = {};

// Our ring in the shape of the peers' rings: called through pointers, as they are. Each repetition leaves a ring
// empty.
struct Ours {
  kesa_ring* ring;
  decltype(&kesa_ring_enqueue) enqueue = kesa_ring_enqueue;
  decltype(&kesa_ring_dequeue) dequeue = kesa_ring_dequeue;
  decltype(&kesa_ring_enqueue_burst) enqueue_burst = kesa_ring_enqueue_burst;
  decltype(&kesa_ring_dequeue_burst) dequeue_burst = kesa_ring_dequeue_burst;
  bool push(uint64_t value) const { return enqueue(ring, value) == 0; }
  bool pop(uint64_t* value) const { return dequeue(ring, value) == 0; }
  unsigned push_burst(const uint64_t* values, unsigned n) const { return enqueue_burst(ring, values, n); }
  unsigned pop_burst(uint64_t* values, unsigned n) const { return dequeue_burst(ring, values, n); }
};

struct Theirs {
  peer_ring calls;
  void* ring;
  bool push(uint64_t value) const { return calls.push(ring, value) != 0; }
  bool pop(uint64_t* value) const { return calls.pop(ring, value) != 0; }
  unsigned push_burst(const uint64_t* values, unsigned n) const { return calls.push_burst(ring, values, n); }
  unsigned pop_burst(uint64_t* values, unsigned n) const { return calls.pop_burst(ring, values, n); }
};

// Pushes kAtOnce values, in one call if there is room for all. Calls `wait` between tries while the ring is full.
template <unsigned kAtOnce, class Ring, class Wait>
void push(const Ring& ring, const Wait& wait) {
  if constexpr (kAtOnce == 1) {
    while (!ring.push(1)) {
      wait();
    }
  } else {
    for (unsigned done = ring.push_burst(values_to_push, kAtOnce); done < kAtOnce;) {
      wait();
      done += ring.push_burst(values_to_push + done, kAtOnce - done);
    }
  }
}

template <unsigned kAtOnce, class Ring, class Wait>
void pop(const Ring& ring, const Wait& wait) {
  uint64_t values[kAtOnce];
  if constexpr (kAtOnce == 1) {
    while (!ring.pop(values)) {
      wait();
    }
  } else {
    for (unsigned done = ring.pop_burst(values, kAtOnce); done < kAtOnce;) {
      wait();
      done += ring.pop_burst(values + done, kAtOnce - done);
    }
  }
  benchmark::DoNotOptimize(values[0]);
}

void look_again() {}

// Pushes and pops on one thread.
template <unsigned kAtOnce>
struct Alone {
  static constexpr unsigned kCores = 1;
  static constexpr uint64_t kCount = 0;
  static Measure measure(const auto& ring, const auto& /*back*/) {
    return one_thread([=] {
      push<kAtOnce>(ring, look_again);
      pop<kAtOnce>(ring, look_again);
    });
  }
};

// Passes values from one core to the other.
template <unsigned kAtOnce>
struct Handover {
  static constexpr unsigned kCores = 2;
  static constexpr uint64_t kCount = 0;
  static Measure measure(const auto& ring, const auto& /*back*/) {
    return two_threads(
        [=](unsigned thread) { thread == 0 ? push<kAtOnce>(ring, look_again) : pop<kAtOnce>(ring, look_again); });
  }
};

// Sends a value to the other core and, through a second ring, back.
struct RoundTrip {
  static constexpr unsigned kCores = 2;
  static constexpr uint64_t kCount = 0;
  static Measure measure(const auto& there, const auto& back) {
    return two_threads([=](unsigned thread) {
      if (thread == 0) {
        push<1>(there, look_again);
        pop<1>(back, look_again);
      } else {
        pop<1>(there, look_again);
        push<1>(back, look_again);
      }
    });
  }
};

// Passes `count` values with a producer and a consumer on each of two cores, which yield when they cannot go on. This
// measures what it costs that threads lose their cores in the middle of a call.
template <unsigned kAtOnce>
struct Crowd {
  static constexpr unsigned kCores = 2;
  static constexpr uint64_t kCount = 1 << 16;
  static Measure measure(const auto& ring, const auto& /*back*/) {
    return [=](uint64_t count) {
      std::array<std::thread, 4> threads;
      std::atomic<unsigned> ready{0};
      for (unsigned i = 0; i < threads.size(); ++i) {
        threads[i] = std::thread([&, i] {
          pin_to(cores()[i % 2]);
          ready.fetch_add(1);
          while (ready.load(std::memory_order_relaxed) <= threads.size()) {
            sched_yield();
          }
          repeat(count / 2 / kAtOnce,
                 [&] { i < 2 ? push<kAtOnce>(ring, sched_yield) : pop<kAtOnce>(ring, sched_yield); });
        });
      }
      while (ready.load() != threads.size()) {
        sched_yield();
      }
      Sample sample;
      const Placement before = placement_now();
      const uint64_t start = now();
      ready.fetch_add(1);
      for (std::thread& thread : threads) {
        thread.join();
      }
      sample.nanoseconds = static_cast<double>(now() - start);
      sample.placement = placement_now();
      sample.disturbed = sample.placement != before;
      return sample;
    };
  }
};

template <class Shape>
Row ours(uint32_t flags) {
  const auto make = [flags] { return Ours{kesa_ring_create(PEER_RING_SLOTS, flags)}; };
  return {"kesa_ring", Shape::measure(make(), make()), Shape::kCount};
}

// Leaves out the peers whose library is missing.
template <class Shape>
std::vector<Row> theirs(const std::vector<const char*>& names) {
  std::vector<Row> rows;
  for (const char* name : names) {
    if (const peer_ring* const found = peer_ring_named(name); found != nullptr) {
      const auto make = [found] { return Theirs{*found, found->make()}; };
      rows.push_back({name, Shape::measure(make(), make()), Shape::kCount});
    }
  }
  return rows;
}

using Names = std::vector<const char*>;

template <class Shape>
Group group(const std::string& name, double target, uint32_t flags, const Names& peers, const Names& shown = {}) {
  return {.name = "ring/" + name,
          .target = target,
          .cores = Shape::kCores,
          .ours = ours<Shape>(flags),
          .peers = theirs<Shape>(peers),
          .shown = theirs<Shape>(shown)};
}

const Names kAllSingle = {"rte_ring_sp, _sc", "rte_ring, single", "ck_ring, spsc", "boost spsc_queue"};
const Names kAllMany = {"rte_ring, many", "ck_ring, mpmc", "boost queue"};

const Family rings{[] {
  constexpr uint32_t kSingle = KESA_RING_SINGLE_BOTH;
  constexpr uint32_t kMany = KESA_RING_MANY;
  return std::vector<Group>{
      group<Alone<1>>("alone/single/pair", 1.0, kSingle, kAllSingle),
      group<Alone<8>>("alone/single/burst_8", 1.0, kSingle, {"rte_ring, single"}, {"boost spsc_queue"}),
      group<Alone<32>>("alone/single/burst_32", 1.0, kSingle, {"rte_ring, single"}, {"boost spsc_queue"}),
      group<Alone<1>>("alone/many/pair", 1.0, kMany, kAllMany),
      group<Alone<8>>("alone/many/burst_8", 1.0, kMany, {"rte_ring, many"}),
      group<Alone<32>>("alone/many/burst_32", 1.0, kMany, {"rte_ring, many"}),
      group<Handover<1>>("handover/single/value", 0.9, kSingle, {"ck_ring, spsc"},
                         {"rte_ring_sp, _sc", "rte_ring, single", "boost spsc_queue"}),
      group<Handover<8>>("handover/single/burst_8", 1.0, kSingle, {"rte_ring, single"}, {"boost spsc_queue"}),
      group<Handover<32>>("handover/single/burst_32", 1.0, kSingle, {"rte_ring, single"}, {"boost spsc_queue"}),
      group<Handover<1>>("handover/many/value", 1.0, kMany, kAllMany),
      group<Handover<8>>("handover/many/burst_8", 1.0, kMany, {"rte_ring, many"}),
      group<Handover<32>>("handover/many/burst_32", 1.0, kMany, {"rte_ring, many"}),
      group<RoundTrip>("round_trip/single", 1.0, kSingle, kAllSingle),
      group<RoundTrip>("round_trip/many", 1.0, kMany, kAllMany),
      group<Crowd<1>>("two_by_two/value", 0, kMany, kAllMany),
      group<Crowd<8>>("two_by_two/burst_8", 0, kMany, {"rte_ring, many"}),
      group<Crowd<32>>("two_by_two/burst_32", 0, kMany, {"rte_ring, many"})};
}};

}  // namespace
}  // namespace tirn::bench
