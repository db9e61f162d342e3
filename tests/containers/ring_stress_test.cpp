#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "support/ring.h"

namespace {

// Threads of a side where it is not single; more than the processors here, so that some lose theirs between a claim and
// its end.
constexpr unsigned kMany = 4;
constexpr unsigned kAtOnce = 5;
constexpr uint32_t kStart = UINT32_MAX - 100;

constexpr uint32_t kValues = 20000000;           // in all; producers stop there, or
constexpr auto kTime = std::chrono::seconds(6);  // then: the sanitizers and the emulator are that slow

// By one of the three forms in turn, now and then for no values. How many went. Threads yield after a call that could do
// nothing, and now and then after another: else they would lose their processor only in the midst of calls, where others
// wait for them in the order of their claims, and each value would take a time slice.
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

// None lost, doubled or, of one producer at one consumer, out of order; across the wrap.
TEST_P(RingStress, HandsEachValueOverOnce) {
  const unsigned producers = (GetParam() & KESA_RING_SINGLE_PRODUCER) != 0 ? 1 : kMany;
  const unsigned consumers = (GetParam() & KESA_RING_SINGLE_CONSUMER) != 0 ? 1 : kMany;
  const auto end = std::chrono::steady_clock::now() + kTime;
  const tirn::test::Ring ring = tirn::test::ring_from(kStart, 64, GetParam());
  uint64_t sent[kMany] = {};
  std::atomic<uint64_t> sums[kMany] = {}, wrong = 0;
  std::atomic<unsigned> at_work{producers};
  std::vector<std::thread> threads;
  for (unsigned p = 0; p < producers; ++p) {
    threads.emplace_back([&, p] {
      uint64_t values[kAtOnce];
      for (unsigned turn = p; sent[p] < kValues / producers && std::chrono::steady_clock::now() < end; ++turn) {
        for (uint32_t i = 0; i < kAtOnce; ++i) {
          values[i] = uint64_t{p} << 32 | (sent[p] + 1 + i);
        }
        sent[p] += move(ring.get(), true, values, turn);
      }
      at_work.fetch_sub(1, std::memory_order_release);
    });
  }
  for (unsigned c = 0; c < consumers; ++c) {
    threads.emplace_back([&, c] {
      uint64_t values[kAtOnce], last[kMany] = {}, sum[kMany] = {};
      bool is_last = false;
      for (unsigned turn = c; !is_last; ++turn) {
        const bool is_over = at_work.load(std::memory_order_acquire) == 0;
        const uint32_t taken = move(ring.get(), false, values, turn);
        for (uint32_t i = 0; i < taken; ++i) {
          const uint64_t producer = values[i] >> 32, number = values[i] & UINT32_MAX;
          ASSERT_LT(producer, producers);
          wrong += number <= last[producer];
          last[producer] = number;
          sum[producer] += number;
        }
        is_last = is_over && kesa_ring_empty(ring.get()) == 1;
      }
      for (unsigned p = 0; p < producers; ++p) {
        sums[p] += sum[p];
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0u);
  EXPECT_LT(ring->producer.head, kStart) << "not as far as the wrap";
  // Each consumer saw rising numbers of each producer, and all of them together have the right sum.
  for (unsigned p = 0; p < producers; ++p) {
    EXPECT_EQ(sums[p], sent[p] * (sent[p] + 1) / 2);
  }
}
