#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "support/random_seed.h"
#include "tirn/bitops.h"

namespace {

// Bytes that end where a page without access begins: a read beyond the map dies.
class GuardedMap {
 public:
  explicit GuardedMap(size_t bytes) : bytes_(bytes) {
    pages_ = static_cast<uint8_t*>(
        mmap(nullptr, kSpan + 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    EXPECT_EQ(mprotect(pages_ + kSpan, 4096, PROT_NONE), 0);
  }
  ~GuardedMap() { munmap(pages_, kSpan + 4096); }
  uint8_t* map() { return pages_ + kSpan - bytes_; }
  bool bit(uint64_t n) { return (map()[n / 8] >> n % 8 & 1) != 0; }
  void fill(int value) { std::memset(map(), value, bytes_); }

 private:
  static constexpr size_t kSpan = 16384;
  size_t bytes_;
  uint8_t* pages_;
};

uint64_t plain_search(GuardedMap& map, uint64_t size, uint64_t offset, bool wanted) {
  for (uint64_t n = offset; n < size; ++n) {
    if (map.bit(n) == wanted) {
      return n;
    }
  }
  return size;
}

}  // namespace

// Against a search bit by bit, at every alignment of the map's end, for sparse, dense and mixed maps.
TEST(BitSearch, AgreesWithAPlainSearch) {
  std::mt19937_64 random(tirn::test::random_seed());
  for (const uint64_t size : {0, 1, 7, 8, 9, 63, 64, 65, 70, 127, 128, 129, 511, 512, 513, 1024, 1025, 4096, 9001}) {
    GuardedMap map((size + 7) / 8);
    for (int round = 0; round < 60; ++round) {
      map.fill(round % 2 != 0 ? 0xFF : 0);
      for (uint64_t flips = size == 0 ? 0 : random() % 3; flips > 0; --flips) {
        const uint64_t n = random() % size;
        map.map()[n / 8] = static_cast<uint8_t>(map.map()[n / 8] ^ 1 << n % 8);
      }
      const uint64_t offset = size == 0 ? 0 : random() % (size + 2);
      SCOPED_TRACE(testing::Message() << "size " << size << " offset " << offset);
      for (const bool wanted : {true, false}) {
        const uint64_t hit = plain_search(map, size, 0, wanted), later = plain_search(map, size, offset, wanted);
        ASSERT_EQ((wanted ? find_first_bit : find_first_zero_bit)(map.map(), size), hit);
        ASSERT_EQ((wanted ? find_next_bit : kesa_find_next_zero_bit)(map.map(), size, offset), later);
        int32_t at = -7, at_later = -7;
        const auto checked = wanted ? kesa_bitop_findfirstsetbit : kesa_bitop_findfirstclrbit;
        ASSERT_EQ(checked(map.map(), static_cast<uint32_t>(size), &at), hit < size);
        ASSERT_EQ(at, hit < size ? static_cast<int32_t>(hit) : -7);
        const int result = kesa_bitop_findnextsetbit(map.map(), static_cast<uint32_t>(size),
                                                     static_cast<uint32_t>(offset), &at_later);
        ASSERT_TRUE(!wanted ||
                    (result == (later < size) && at_later == (result != 0 ? static_cast<int>(later) : -7)));
      }
    }
  }
}

// From the front and from the hit itself on; the search for long maps looks at many words at a time.
TEST(BitSearch, FindsTheOnlyHitWhereverItIs) {
  for (const uint64_t size : {2048, 2059, 9001}) {
    GuardedMap map((size + 7) / 8);
    for (const bool wanted : {true, false}) {
      const auto first = wanted ? find_first_bit : find_first_zero_bit;
      const auto next = wanted ? find_next_bit : kesa_find_next_zero_bit;
      map.fill(wanted ? 0 : 0xFF);
      for (uint64_t n = 0; n < size; ++n) {
        const auto flip = static_cast<uint8_t>(1 << n % 8);
        map.map()[n / 8] ^= flip;
        ASSERT_TRUE(first(map.map(), size) == n && next(map.map(), size, n) == n &&
                    next(map.map(), size, n + 1) == size);
        ASSERT_EQ(first(map.map(), n), n);
        map.map()[n / 8] ^= flip;
      }
    }
  }
}

TEST(BitSearch, NothingIsReadForAnEmptyRangeOrWithoutAPointer) {
  EXPECT_EQ(find_first_bit(nullptr, 0), 0u);
  EXPECT_EQ(find_first_zero_bit(nullptr, 0), 0u);
  EXPECT_EQ(find_next_bit(nullptr, 0, 0), 0u);
  EXPECT_EQ(kesa_find_next_zero_bit(nullptr, 64, 64), 64u);
  EXPECT_EQ(find_next_bit(nullptr, 64, ~0ull), 64u);
  const uint8_t map[] = {1, 0};
  int32_t at = -7;
  EXPECT_TRUE(kesa_bitop_findfirstsetbit(map, 8, nullptr) == 0 && kesa_bitop_findfirstsetbit(nullptr, 8, &at) == 0);
  EXPECT_TRUE(kesa_bitop_findfirstclrbit(map, 8, nullptr) == 0 && kesa_bitop_findfirstclrbit(nullptr, 8, &at) == 0);
  EXPECT_TRUE(kesa_bitop_findnextsetbit(map, 8, 0, nullptr) == 0 &&
              kesa_bitop_findnextsetbit(nullptr, 8, 0, &at) == 0);
  EXPECT_EQ(at, -7);
}

TEST(BitRead, FirstBitsOfAMap) {
  GuardedMap map(8);
  const uint8_t bytes[] = {0xEF, 0xCD, 0xAB, 0x89, 0x67, 0x45, 0x23, 0x81};
  std::memcpy(map.map(), bytes, sizeof bytes);
  const uint64_t whole = 0x8123456789ABCDEF;
  for (uint64_t count = 0; count < 64; ++count) {
    EXPECT_EQ(kesa_bitop_read_u64(map.map(), count), whole & ((1ull << count) - 1)) << count;
    const size_t needed = (count + 7) / 8;
    EXPECT_EQ(kesa_bitop_read_u64(map.map() + 8 - needed, count) >> count, 0u) << count;
  }
  EXPECT_EQ(kesa_bitop_read_u64(map.map(), 64), whole);
  EXPECT_EQ(kesa_bitop_read_u64(map.map(), 1000), whole);
}

TEST(BitChange, SingleBitsOfAnUnalignedMap) {
  GuardedMap map(3);
  kesa_set_bit(9, map.map());
  EXPECT_EQ(map.map()[1], 0x02);
  EXPECT_EQ(kesa_test_and_set_bit(9, map.map()), 1);
  EXPECT_EQ(kesa_test_and_set_bit(23, map.map()), 0);
  EXPECT_EQ(map.map()[2], 0x80);
  EXPECT_EQ(kesa_test_and_clear_bit(9, map.map()), 1);
  EXPECT_EQ(kesa_test_and_clear_bit(9, map.map()), 0);
  kesa_clear_bit(23, map.map());
  EXPECT_EQ(map.map()[0] | map.map()[1] | map.map()[2], 0);
}

// Neighbouring bits of one byte, changed by two threads: no change is lost.
TEST(BitChange, IsAtomicOnItsByte) {
  uint8_t byte = 0;
  const auto toggle = [&byte](uint32_t bit) {
    for (int i = 0; i < 100001; ++i) {
      if (i % 2 == 0) {
        EXPECT_EQ(kesa_test_and_set_bit(bit, &byte), 0);
      } else {
        EXPECT_EQ(kesa_test_and_clear_bit(bit, &byte), 1);
      }
    }
  };
  std::thread other(toggle, 3);
  toggle(4);
  other.join();
  EXPECT_EQ(byte, 0x18);
}

TEST(BitCount, Weights) {
  EXPECT_TRUE(kesa_hweight32(0) == 0 && kesa_hweight32(0xFFFFFFFF) == 32);
  EXPECT_EQ(kesa_hweight32(0x80010101), 4u);
  EXPECT_EQ(kesa_hweight64(~0ull), 64u);
  EXPECT_EQ(kesa_hweight64(0x8000000100000001), 3u);
}

template <typename Value>
void check_order(Value value, Value reversed, std::vector<Value (*)(Value)> little,
                 std::vector<Value (*)(Value)> big) {
  for (size_t way : {0, 1}) {
    EXPECT_EQ(little[way](value), value);
    EXPECT_EQ(big[way](value), reversed);
  }
}

TEST(Endian, LittleStaysAndBigIsReversed) {
  check_order<uint16_t>(0x1234, 0x3412, {kesa_endian_cputolittle16, kesa_endian_littletocpu16},
                        {kesa_endian_cputobig16, kesa_endian_bigtocpu16});
  check_order<uint32_t>(0x12345678, 0x78563412, {kesa_endian_cputolittle32, kesa_endian_littletocpu32},
                        {kesa_endian_cputobig32, kesa_endian_bigtocpu32});
  check_order<uint64_t>(0x123456789ABCDEF0, 0xF0DEBC9A78563412,
                        {kesa_endian_cputolittle64, kesa_endian_littletocpu64},
                        {kesa_endian_cputobig64, kesa_endian_bigtocpu64});
}
