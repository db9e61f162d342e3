#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "support/faults.h"
#include "support/log_capture.h"
#include "support/random_seed.h"
#include "support/ring.h"
#include "support/wait_until.h"

namespace {

using namespace tirn::test;

constexpr uint32_t kAbove = KESA_RING_ABOVE_WATERMARK;

}  // namespace

class RingByFlags : public testing::TestWithParam<uint32_t> {};
INSTANTIATE_TEST_SUITE_P(All, RingByFlags, testing::Range(0u, 4u));

TEST_P(RingByFlags, AgreesWithAModel) {
  std::mt19937 random(random_seed());
  for (const auto& [start, count] : std::vector<std::pair<uint32_t, uint32_t>>{
           {0, 1}, {UINT32_MAX - 500, 2}, {UINT32_MAX - 500, 8}, {0x7FFFFFFC, 64}}) {
    const Ring ring = ring_from(start, count, GetParam());
    const uint32_t mask = count - 1;
    std::deque<uint64_t> model;
    std::vector<uint64_t> values(count + 3);
    for (int step = 0; step < 20000; ++step) {
      const auto used = static_cast<uint32_t>(model.size());
      ASSERT_EQ(kesa_ring_count(ring.get()), used);
      ASSERT_EQ(kesa_ring_free_count(ring.get()), mask - used);
      ASSERT_EQ(kesa_ring_empty(ring.get()), used == 0);
      ASSERT_EQ(kesa_ring_full(ring.get()), used == mask);
      ASSERT_EQ(kesa_ring_size(ring.get()), count);

      const bool puts = random() % 2 == 0;
      const uint32_t room = puts ? mask - used : used;
      const auto form = static_cast<Form>(random() % kForms);
      const uint32_t n = form == kOne ? 1 : static_cast<uint32_t>(random() % values.size());
      const uint32_t moved = n <= room ? n : form == kBurst ? room : 0;
      const int refused = puts ? -ENOBUFS : -ENOENT;
      const int expected = form == kBurst ? static_cast<int>(moved) : n <= room ? 0 : refused;
      std::fill(values.begin(), values.end(), 0);
      for (uint32_t i = 0; puts && i < n; ++i) {
        values[i] = random();
      }
      ASSERT_EQ(call(ring.get(), puts, form, values.data(), n), expected);
      for (uint32_t i = 0; i < moved; ++i) {
        if (puts) {
          model.push_back(values[i]);
        } else {
          ASSERT_EQ(values[i], model.front());
          model.pop_front();
        }
      }
      ASSERT_TRUE(puts ||
                  std::all_of(values.begin() + moved, values.end(), [](uint64_t value) { return value == 0; }));
    }
    EXPECT_EQ(ring->producer.head - start > 1000, count > 1);
    EXPECT_EQ(ring->producer.head, ring->producer.tail);
    EXPECT_EQ(ring->consumer.head, ring->consumer.tail);
  }
}

// Nothing else than the mark changes, and it tells of the values that are there now.
TEST_P(RingByFlags, TellsOfAWatermark) {
  const Ring ring = ring_from(0, 8, GetParam());
  uint64_t values[8] = {};
  EXPECT_EQ(ring->producer.watermark, 8u);
  ring->producer.watermark = 4;
  EXPECT_EQ(kesa_ring_enqueue_burst(ring.get(), values, 3), 3u);
  EXPECT_EQ(kesa_ring_dequeue_bulk(ring.get(), values, 2), 0);
  EXPECT_EQ(kesa_ring_enqueue_bulk(ring.get(), values, 2), 0);
  EXPECT_EQ(kesa_ring_enqueue(ring.get(), 0), -EDQUOT);
  EXPECT_EQ(kesa_ring_enqueue_bulk(ring.get(), values, 2), -EDQUOT);
  EXPECT_EQ(kesa_ring_enqueue_burst(ring.get(), values, 8), kAbove | 1);
  EXPECT_EQ(kesa_ring_enqueue_burst(ring.get(), values, 8), 0u);
  EXPECT_EQ(kesa_ring_enqueue(ring.get(), 0), -ENOBUFS);
  EXPECT_EQ(kesa_ring_count(ring.get()), 7u);
  EXPECT_EQ(ring->flags, GetParam());
  EXPECT_EQ(ring->producer.singleProducer, GetParam() & 1);
  EXPECT_EQ(ring->consumer.singleConsumer, GetParam() & 2);
}

TEST(Ring, IsMadeOfPowersOfTwo) {
  LogCapture capture;
  for (const uint32_t count : {0u, 3u, 0x10000000u, UINT32_MAX}) {
    EXPECT_EQ(kesa_ring_create(count, 0), nullptr);
  }
  EXPECT_EQ(capture.count(TIRN_LOG_ERROR, "kesa_ring_create:uiCount must be a power of 2 or great than MAX"), 4u);
  const Ring largest(kesa_ring_create(0x08000000, 0));
  EXPECT_EQ(kesa_ring_free_count(largest.get()), 0x07FFFFFFu);
  EXPECT_EQ(Ring(kesa_ring_create(4, KESA_RING_SINGLE_BOTH))->flags, 3u);
  {
    const Faults faults({.kinds = kHeapFaults, .number = 1});
    EXPECT_EQ(kesa_ring_create(8, 0), nullptr);
  }
  EXPECT_EQ(capture.lines().size(), 4u);
}

TEST(Ring, AnswersForNull) {
  LogCapture capture;
  uint64_t value = 0;
  const std::pair<const char*, int> answers[] = {
      {"kesa_ring_enqueue", kesa_ring_enqueue(nullptr, 0)}, {"kesa_ring_dequeue", kesa_ring_dequeue(nullptr, &value)},
      {"kesa_ring_full", kesa_ring_full(nullptr)},          {"kesa_ring_empty", kesa_ring_empty(nullptr)},
      {"kesa_ring_count", kesa_ring_count(nullptr)},        {"kesa_ring_free_count", kesa_ring_free_count(nullptr)},
      {"kesa_ring_size", kesa_ring_size(nullptr)},
  };
  for (const auto& [function, answer] : answers) {
    EXPECT_EQ(answer, -1) << function;
    EXPECT_TRUE(capture.has(TIRN_LOG_ERROR, function, "Kesa ring id is NULL.")) << function;
  }
  kesa_ring_delete(nullptr);
  kesa_ring* ring = kesa_ring_create(2, 0);
  kesa_ring_delete(&ring), kesa_ring_delete(&ring);
  EXPECT_EQ(ring, nullptr);
  EXPECT_EQ(capture.lines().size(), std::size(answers));
}

// Another thread is between its claim and its tail: those behind it spin, yield and do not publish.
TEST(Ring, WaitsForEarlierClaims) {
  static std::atomic<int> yields;
  Imports imports(Object::library);
  imports.redirect("sched_yield", reinterpret_cast<void*>(+[]() -> int { return ++yields, 0; }));
  const Ring ring = ring_from(UINT32_MAX, 8, 0);
  const auto behind = [&](auto& side, const auto& call) {
    yields = 0;
    std::atomic_ref(side.head).store(side.head + 1);
    std::thread thread(call);
    EXPECT_TRUE(wait_until([] { return yields != 0; }));
    const uint32_t before = std::atomic_ref(side.tail).load();
    EXPECT_EQ(std::atomic_ref(side.head).load(), before + 2);
    std::atomic_ref(side.tail).store(before + 1, std::memory_order_release);
    thread.join();
    EXPECT_EQ(side.tail, before + 2);
  };
  behind(ring->producer, [&] { EXPECT_EQ(kesa_ring_enqueue(ring.get(), 7), 0); });
  behind(ring->consumer, [&] {
    uint64_t value = 0;
    EXPECT_EQ(kesa_ring_dequeue(ring.get(), &value), 0);
    EXPECT_EQ(value, 7u);
  });
}
