#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "support/faults.h"
#include "support/random_seed.h"
#include "support/ring.h"
#include "support/wait_until.h"

using namespace tirn::test;

class RingByFlags : public testing::TestWithParam<uint32_t> {};
INSTANTIATE_TEST_SUITE_P(All, RingByFlags, testing::Range(0u, 4u));

// Also covers the wrap of the positions, and a watermark: calls report that it is exceeded, and nothing else changes.
TEST_P(RingByFlags, AgreesWithAModel) {
  std::mt19937 random(random_seed());
  for (const auto& [start, count, watermark] :
       {std::tuple{0u, 1u, 1u}, {UINT32_MAX - 500, 2, 2}, {UINT32_MAX - 500, 8, 5}, {0x7FFFFFFC, 64, 64}}) {
    const Ring ring = ring_from(start, count, GetParam());
    EXPECT_TRUE(ring->flags == GetParam() && ring->producer.watermark == count);
    EXPECT_TRUE(ring->producer.singleProducer == (GetParam() & KESA_RING_SINGLE_PRODUCER) &&
                ring->consumer.singleConsumer == (GetParam() & KESA_RING_SINGLE_CONSUMER));
    ring->producer.watermark = watermark;
    const uint32_t mask = count - 1;
    std::deque<uint64_t> model;
    for (int step = 0; step < 20000; ++step) {
      const auto used = static_cast<uint32_t>(model.size());
      ASSERT_EQ(kesa_ring_count(ring.get()), used);
      ASSERT_EQ(kesa_ring_free_count(ring.get()), mask - used);
      ASSERT_EQ(kesa_ring_empty(ring.get()), used == 0 ? 1u : 0u);
      ASSERT_EQ(kesa_ring_full(ring.get()), used == mask ? 1u : 0u);
      ASSERT_EQ(kesa_ring_size(ring.get()), count);
      const bool puts = random() % 2 == 0;
      const uint32_t room = puts ? mask - used : used;
      const auto form = static_cast<Form>(random() % kForms);
      const uint32_t n = form == kOne ? 1 : static_cast<uint32_t>(random() % (count + 3));
      const uint32_t moved = n <= room ? n : form == kBurst ? room : 0;
      const bool is_above = puts && moved > 0 && used + moved + 1 > watermark;
      std::vector<uint64_t> values(count + 3);
      if (puts) {
        std::generate(values.begin(), values.begin() + n, std::ref(random));
        model.insert(model.end(), values.begin(), values.begin() + moved);
      }
      const int result = call(ring.get(), puts, form, values.data(), n);
      if (form == kBurst) {
        ASSERT_EQ(static_cast<uint32_t>(result), moved | (is_above ? KESA_RING_ABOVE_WATERMARK : 0));
      } else {
        ASSERT_EQ(result, n <= room ? (is_above ? -EDQUOT : 0) : puts ? -ENOBUFS : -ENOENT);
      }
      if (!puts) {
        std::vector<uint64_t> taken(model.begin(), model.begin() + moved);
        model.erase(model.begin(), model.begin() + moved);
        taken.resize(values.size());
        ASSERT_EQ(values, taken);
      }
    }
    EXPECT_TRUE(ring->producer.head == ring->producer.tail && ring->consumer.head == ring->consumer.tail);
  }
}

TEST(Ring, IsMadeOfPowersOfTwoAndAnswersForNull) {
  LogCapture capture;
  for (const uint32_t count : {0u, 3u, 0x10000000u, UINT32_MAX}) {
    EXPECT_EQ(kesa_ring_create(count, 0), nullptr);
  }
  EXPECT_EQ(capture.count(TIRN_LOG_ERROR, "kesa_ring_create:uiCount must be a power of 2 or great than MAX"), 4u);
  EXPECT_EQ(kesa_ring_free_count(Ring(kesa_ring_create(0x08000000, 0)).get()), 0x07FFFFFFu);
  kesa_ring* ring = kesa_ring_create(4, KESA_RING_SINGLE_BOTH);
  EXPECT_EQ(ring->flags, KESA_RING_SINGLE_PRODUCER | KESA_RING_SINGLE_CONSUMER);
  kesa_ring_delete(&ring), kesa_ring_delete(&ring), kesa_ring_delete(nullptr);
  {
    const Faults faults({.kinds = kHeapFaults, .number = 1});
    EXPECT_EQ(kesa_ring_create(8, 0), nullptr);
  }
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
  EXPECT_EQ(capture.lines().size(), 4 + std::size(answers));
}

// Another producer has claimed a position and not published it yet. A producer with a later claim spins, yields and
// does not publish.
TEST(Ring, WaitsForEarlierClaims) {
  static std::atomic<int> yields;
  Imports imports(Object::library);
  imports.redirect("sched_yield", []() -> int { return ++yields, 0; });
  const Ring ring = ring_from(UINT32_MAX, 8, 0);
  auto& side = ring->producer;
  std::atomic_ref(side.head).store(0);
  std::thread thread([&] { EXPECT_EQ(kesa_ring_enqueue(ring.get(), 7), 0); });
  EXPECT_TRUE(wait_until([] { return yields != 0; }));
  EXPECT_TRUE(std::atomic_ref(side.head).load() == 1 && std::atomic_ref(side.tail).load() == UINT32_MAX);
  std::atomic_ref(side.tail).store(0, std::memory_order_release);
  thread.join();
  EXPECT_EQ(side.tail, 1u);
}
