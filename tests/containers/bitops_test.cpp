#include "tirn/bitops.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <set>
#include <type_traits>

#include "containers/guarded.h"
#include "support/random_seed.h"
#include "sync/together.h"

using namespace tirn::test;

// Puts a hit at each position and another one anywhere above it, in maps that end right before an inaccessible page.
// A third hit, at the size, must not be found: if it is in the map, it is an unused bit of the last byte.
TEST(BitSearch, FindsTheNextHitWhereverItIs) {
  std::mt19937_64 random(random_seed());
  const Guarded memory;
  for (const uint64_t size : {0, 1, 7, 8, 9, 63, 64, 65, 70, 127, 128, 129, 511, 512, 513, 1025, 2048, 2059, 9001}) {
    const size_t bytes = (size + 7) / 8;
    uint8_t* const map = memory.end() - bytes;
    for (uint64_t n = 0; n <= size; ++n) {
      const std::set<uint64_t> hits{n, n + random() % (size + 1 - n), size};
      for (const bool wanted : {true, false}) {
        std::memset(map, wanted ? 0 : 0xFF, bytes);
        for (const uint64_t hit : hits) {
          if (hit / 8 < bytes) {
            map[hit / 8] = static_cast<uint8_t>(map[hit / 8] ^ 1 << hit % 8);
          }
        }
        const auto first = wanted ? find_first_bit : find_first_zero_bit;
        ASSERT_EQ(first(map, size), n) << size;
        ASSERT_EQ(first(map, n), n) << "as the size";
        int32_t at = -7;
        const auto checked = wanted ? kesa_bitop_findfirstsetbit : kesa_bitop_findfirstclrbit;
        ASSERT_EQ(checked(map, static_cast<uint32_t>(size), &at), n < size);
        ASSERT_EQ(at, n < size ? static_cast<int32_t>(n) : -7);
        for (const uint64_t offset : {n, n + 1, random() % (size + 2)}) {
          const uint64_t later = offset > size ? size : *hits.lower_bound(offset);
          ASSERT_EQ((wanted ? find_next_bit : kesa_find_next_zero_bit)(map, size, offset), later)
              << "size " << size << " offset " << offset;
          if (wanted) {
            at = -7;
            ASSERT_EQ(kesa_bitop_findnextsetbit(map, static_cast<uint32_t>(size), static_cast<uint32_t>(offset), &at),
                      later < size);
            ASSERT_EQ(at, later < size ? static_cast<int32_t>(later) : -7);
          }
        }
      }
    }
  }
}

TEST(BitSearch, NothingIsReadForAnEmptyRangeOrWithoutAPointer) {
  EXPECT_EQ(find_first_bit(nullptr, 0), 0u);
  EXPECT_EQ(find_first_zero_bit(nullptr, 0), 0u);
  EXPECT_EQ(kesa_find_next_zero_bit(nullptr, 70, 70), 70u);
  EXPECT_EQ(find_next_bit(nullptr, 64, ~0ull), 64u);
  const uint8_t bits[] = {1, 0};
  int32_t at = -7;
  for (const auto& [map, position] : {std::pair<const void*, int32_t*>{bits, nullptr}, {nullptr, &at}}) {
    EXPECT_EQ(kesa_bitop_findfirstsetbit(map, 8, position), 0);
    EXPECT_EQ(kesa_bitop_findfirstclrbit(map, 8, position), 0);
    EXPECT_EQ(kesa_bitop_findnextsetbit(map, 8, 0, position), 0);
  }
  EXPECT_EQ(at, -7);
}

TEST(BitRead, FirstBitsOfAMap) {
  const Guarded memory;
  const uint64_t whole = 0x8123456789ABCDEF;
  std::memcpy(memory.end() - 8, &whole, 8);
  for (uint64_t count = 0; count < 66; ++count) {
    const uint64_t bytes = count < 64 ? (count + 7) / 8 : 8, kept = count < 64 ? (1ull << count) - 1 : ~0ull;
    EXPECT_EQ(kesa_bitop_read_u64(memory.end() - bytes, count), whole >> (64 - 8 * bytes) % 64 & kept) << count;
  }
}

// Two threads change neighbouring bits of one byte in an unaligned map. No change is lost, and no other bit changes.
TEST(BitChange, IsAtomicOnItsByte) {
  const Guarded memory;
  uint8_t* const map = memory.end() - 3;
  together(2, [map](unsigned other) {
    const uint32_t bit = 19 + other;
    for (int i = 0; i < 300000 && !testing::Test::HasFailure(); ++i) {
      EXPECT_EQ(kesa_test_and_set_bit(bit, map), 0);
      EXPECT_EQ(kesa_test_and_set_bit(bit, map), 1);
      EXPECT_EQ(kesa_test_and_clear_bit(bit, map), 1);
      EXPECT_EQ(kesa_test_and_clear_bit(bit, map), 0);
      kesa_set_bit(bit, map), kesa_set_bit(bit, map);
      EXPECT_EQ(kesa_test_and_set_bit(bit, map), 1);
      kesa_clear_bit(bit, map), kesa_clear_bit(bit, map);
    }
    kesa_set_bit(bit, map);
  });
  EXPECT_TRUE(map[0] == 0 && map[1] == 0 && map[2] == 0x18) << int{map[2]};
}

TEST(BitCount, Weights) {
  for (const auto& [word, weight] : {std::pair{0u, 0u}, {0xFFFFFFFF, 32}, {0x80010101, 4}}) {
    EXPECT_EQ(kesa_hweight32(word), weight);
    EXPECT_EQ(kesa_hweight64(uint64_t{word} << 32 | 1), weight + 1);
  }
}

TEST(Endian, LittleStaysAndBigIsReversed) {
  const auto both = []<typename Value>(Value (*to)(Value), Value (*from)(Value), std::type_identity_t<Value> value,
                                       std::type_identity_t<Value> expected) {
    EXPECT_EQ(to(value), expected) << std::hex << to(value);
    EXPECT_EQ(from(value), expected) << std::hex << from(value);
  };
  both(kesa_endian_cputolittle16, kesa_endian_littletocpu16, 0x1234, 0x1234);
  both(kesa_endian_cputolittle32, kesa_endian_littletocpu32, 0x12345678, 0x12345678);
  both(kesa_endian_cputolittle64, kesa_endian_littletocpu64, 0x123456789ABCDEF0, 0x123456789ABCDEF0);
  both(kesa_endian_cputobig16, kesa_endian_bigtocpu16, 0x1234, 0x3412);
  both(kesa_endian_cputobig32, kesa_endian_bigtocpu32, 0x12345678, 0x78563412);
  both(kesa_endian_cputobig64, kesa_endian_bigtocpu64, 0x123456789ABCDEF0, 0xF0DEBC9A78563412);
}
