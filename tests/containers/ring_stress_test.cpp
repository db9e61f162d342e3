#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <numeric>

#include "support/ring.h"
#include "sync/together.h"

namespace {

// The number of threads on a side that is not single. It exceeds the number of processors of the test machines, so
// that some threads are preempted between a claim and its end.
constexpr unsigned kMany = 4;
constexpr unsigned kAtOnce = 5;
constexpr uint32_t kStart = UINT32_MAX - 100;

constexpr uint32_t kValues = 20000000;           // of all producers together, at most
constexpr auto kTime = std::chrono::seconds(6);  // then the producers stop: sanitizers and the emulator are slow

// Moves values by each of the three forms in turn, sometimes by a call for zero values. Returns how many it moved.
// The thread yields after a call that moved nothing, and after every eighth call. Otherwise threads would lose their
// processor only in the middle of calls, where other threads wait for them in the order of the claims, and each value
// would take a time slice.
uint32_t move(kesa_ring* ring, bool puts, uint64_t* values, unsigned turn) {
  const auto form = static_cast<tirn::test::Form>(turn % tirn::test::kForms);
  const uint32_t n = form == tirn::test::kOne ? 1 : turn % 4 == 3 ? 0 : kAtOnce;
  const int result = tirn::test::call(ring, puts, form, values, n);
  const uint32_t moved = form == tirn::test::kBurst ? static_cast<uint32_t>(result) : result == 0 ? n : 0;
  if (moved == 0 || turn % 8 == 0) {
    sched_yield();
  }
  return moved;
}

}  // namespace

class RingStress : public testing::TestWithParam<uint32_t> {};
INSTANTIATE_TEST_SUITE_P(All, RingStress, testing::Range(0u, 4u));

// No value is lost or doubled, and each consumer gets the values of each producer in order, also across the wrap.
TEST_P(RingStress, HandsEachValueOverOnce) {
  const unsigned producers = (GetParam() & KESA_RING_SINGLE_PRODUCER) != 0 ? 1 : kMany;
  const unsigned consumers = (GetParam() & KESA_RING_SINGLE_CONSUMER) != 0 ? 1 : kMany;
  const auto end = std::chrono::steady_clock::now() + kTime;
  const tirn::test::Ring ring = tirn::test::ring_from(kStart, 64, GetParam());
  uint64_t sent[kMany] = {};
  uint64_t sums[2 * kMany][kMany] = {};  // of the values that each thread took, by producer
  std::atomic<uint64_t> wrong{0};
  std::atomic<unsigned> at_work{producers};
  tirn::test::together(producers + consumers, [&](unsigned thread) {
    uint64_t values[kAtOnce];
    unsigned turn = thread;
    if (thread < producers) {
      for (uint64_t& mine = sent[thread]; mine < kValues / producers && std::chrono::steady_clock::now() < end;) {
        for (uint32_t i = 0; i < kAtOnce; ++i) {
          values[i] = uint64_t{thread} << 32 | (mine + 1 + i);
        }
        mine += move(ring.get(), true, values, turn++);
      }
      at_work.fetch_sub(1, std::memory_order_release);
      return;
    }
    uint64_t last[kMany] = {};
    for (bool is_last = false; !is_last;) {
      const bool is_over = at_work.load(std::memory_order_acquire) == 0;
      const uint32_t taken = move(ring.get(), false, values, turn++);
      for (uint32_t i = 0; i < taken; ++i) {
        const uint64_t producer = values[i] >> 32, number = values[i] & UINT32_MAX;
        ASSERT_LT(producer, producers);
        wrong += number <= last[producer];
        last[producer] = number;
        sums[thread][producer] += number;
      }
      is_last = is_over && kesa_ring_empty(ring.get()) == 1;
    }
  });
  EXPECT_EQ(wrong, 0u);
  EXPECT_LT(ring->producer.head, kStart) << "not as far as the wrap";
  // Each consumer saw the numbers of each producer rise. Over all consumers, the numbers must have the right sum.
  for (unsigned p = 0; p < producers; ++p) {
    const uint64_t sum = std::accumulate(std::begin(sums), std::end(sums), uint64_t{0},
                                         [p](uint64_t so_far, const auto& one) { return so_far + one[p]; });
    EXPECT_EQ(sum, sent[p] * (sent[p] + 1) / 2);
  }
}
