#include <gtest/gtest.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "support/ring.h"

namespace {

// Threads of a side where it is not single; more than the processors here, so that some lose theirs between a claim and
// its end.
constexpr unsigned kMany = 4;
constexpr unsigned kBurst = 5;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__) || !defined(__x86_64__)
constexpr uint32_t kValues = 2000000;  // each costs ten times as much
#else
constexpr uint32_t kValues = 20000000;
#endif

uint64_t value_of(unsigned producer, uint32_t number) { return uint64_t{producer} << 32 | number; }

// By one of the three forms in turn. How many went.
uint32_t put(kesa_ring* ring, const uint64_t* values, uint32_t n, unsigned turn) {
  switch (turn % 3) {
    case 0:
      return kesa_ring_enqueue(ring, values[0]) == 0;
    case 1:
      return kesa_ring_enqueue_bulk(ring, values, n) == 0 ? n : 0;
    default:
      return kesa_ring_enqueue_burst(ring, values, n);
  }
}

uint32_t take(kesa_ring* ring, uint64_t* values, uint32_t n, unsigned turn) {
  switch (turn % 3) {
    case 0:
      return kesa_ring_dequeue(ring, values) == 0;
    case 1:
      return kesa_ring_dequeue_bulk(ring, values, n) == 0 ? n : 0;
    default:
      return kesa_ring_dequeue_burst(ring, values, n);
  }
}

// When a call could do nothing, and now and then outside of any: threads that lose their processor only in the midst of
// calls, where others wait for them in the order of their claims, would pass each value on once in a time slice.
void rest(uint32_t moved, unsigned turn) {
  if (moved == 0 || turn % 4 == 0) {
    sched_yield();
  }
}

}  // namespace

class RingStress : public testing::TestWithParam<uint32_t> {};
INSTANTIATE_TEST_SUITE_P(All, RingStress, testing::Range(0u, 4u));

// None lost, doubled or, of one producer at one consumer, out of order; across the wrap.
TEST_P(RingStress, HandsEachValueOverOnce) {
  const uint32_t flags = GetParam();
  const unsigned producers = (flags & KESA_RING_SINGLE_PRODUCER) != 0 ? 1 : kMany;
  const unsigned consumers = (flags & KESA_RING_SINGLE_CONSUMER) != 0 ? 1 : kMany;
  const uint32_t each = kValues / (flags == 0 ? 1 : 4) / producers;
  const tirn::test::Ring ring = tirn::test::ring_from(UINT32_MAX - each, 64, flags);
  std::atomic<uint64_t> left{uint64_t{each} * producers};
  std::atomic<uint64_t> out_of_order{0};
  std::vector<std::vector<uint64_t>> sums(consumers, std::vector<uint64_t>(producers));
  std::vector<std::thread> threads;
  for (unsigned p = 0; p < producers; ++p) {
    threads.emplace_back([&, p] {
      uint64_t values[kBurst];
      for (uint32_t next = 1, turn = 0; next <= each; ++turn) {
        const uint32_t n = std::min(kBurst, each - next + 1);
        for (uint32_t i = 0; i < n; ++i) {
          values[i] = value_of(p, next + i);
        }
        const uint32_t moved = put(ring.get(), values, n, turn);
        next += moved;
        rest(moved, turn);
      }
    });
  }
  for (unsigned c = 0; c < consumers; ++c) {
    threads.emplace_back([&, c] {
      std::vector<uint64_t> last(producers);
      uint64_t values[kBurst];
      for (unsigned turn = 0; left.load(std::memory_order_relaxed) != 0; ++turn) {
        const uint32_t moved = take(ring.get(), values, kBurst, turn);
        for (uint32_t i = 0; i < moved; ++i) {
          const uint64_t producer = values[i] >> 32;
          const uint64_t number = values[i] & UINT32_MAX;
          ASSERT_LT(producer, producers);
          out_of_order += number <= last[producer];
          last[producer] = number;
          sums[c][producer] += number;
        }
        left.fetch_sub(moved, std::memory_order_relaxed);
        rest(moved, turn);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(out_of_order, 0u);
  EXPECT_EQ(left, 0u);
  EXPECT_EQ(kesa_ring_empty(ring.get()), 1u);
  // As many as there are, each producer's in rising order at each consumer, and their sum right.
  for (unsigned p = 0; p < producers; ++p) {
    uint64_t sum = 0;
    for (const auto& of_consumer : sums) {
      sum += of_consumer[p];
    }
    EXPECT_EQ(sum, uint64_t{each} * (each + 1) / 2);
  }
}
