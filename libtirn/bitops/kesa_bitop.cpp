// Implements the searches for bits, the reading of bits and the counts of tirn/bitops.h.
#include <algorithm>
#include <bit>
#include <cstring>

#include "libtirn/arch/arch.h"
#include "tirn/bitops.h"

using namespace tirn;

namespace {

constexpr uint64_t kWord = 64;

uint64_t word_at(const uint8_t* map, uint64_t index) {
  uint64_t word;
  std::memcpy(&word, map + index * 8, sizeof word);
  return word;
}

// The searches for set and for clear bits share their code: the clear bits of a word are the set bits of its inverse.
// `kSkip` is a word without a hit.
enum class Bit { kSet, kClear };
template <Bit kBit>
constexpr uint64_t kSkip = kBit == Bit::kSet ? 0 : ~uint64_t{0};

template <Bit kBit>
uint64_t first_in(uint64_t word) {
  return static_cast<uint64_t>(std::countr_zero(word ^ kSkip<kBit>));
}

// Searches from word `at` on: whole words, many at a time, then the bits after the last whole word.
template <Bit kBit>
[[gnu::noinline]] uint64_t find_far(const uint8_t* map, uint64_t size, uint64_t at) {
  const uint64_t words = size / kWord;
  at += arch::equal_words(map + at * 8, words - at, kSkip<kBit>);
  if (at < words) {
    return at * kWord + first_in<kBit>(word_at(map, at));
  }
  const uint64_t rest = size % kWord;
  if (rest == 0) {
    return size;
  }
  // The bits above the size are read as zeros. In a search for clear bits, the first of them gives the size itself.
  const uint64_t last = kesa_bitop_read_u64(map + words * 8, rest);
  return last == kSkip<kBit> ? size : words * kWord + first_in<kBit>(last);
}

template <Bit kBit>
inline uint64_t find_first(const uint8_t* map, uint64_t size) {
  constexpr uint64_t kNear = 8;  // words to test before the search for long maps is worth its call
  const uint64_t near = std::min(size / kWord, kNear);
  for (uint64_t at = 0; at < near; ++at) {
    if (const uint64_t word = word_at(map, at); word != kSkip<kBit>) {
      return at * kWord + first_in<kBit>(word);
    }
  }
  return near * kWord == size ? size : find_far<kBit>(map, size, near);
}

template <Bit kBit>
uint64_t find_next(const uint8_t* map, uint64_t size, uint64_t offset) {
  if (offset >= size) {
    return size;
  }
  const uint64_t base = offset / kWord * kWord;
  if (offset != base) {
    const uint64_t left = size - base;
    const uint64_t below = (uint64_t{1} << (offset - base)) - 1;
    const uint64_t word = kesa_bitop_read_u64(map + base / 8, left);
    const uint64_t kept = kBit == Bit::kSet ? word & ~below : word | below;
    if (kept != kSkip<kBit>) {
      const uint64_t found = first_in<kBit>(kept);
      return found < left ? base + found : size;
    }
    if (left <= kWord) {
      return size;
    }
    return base + kWord + find_first<kBit>(map + base / 8 + 8, left - kWord);
  }
  return base + find_first<kBit>(map + base / 8, size - base);
}

const uint8_t* bytes_of(const void* map) { return static_cast<const uint8_t*>(map); }

int store_found(uint64_t found, uint32_t size, int32_t* position) {
  if (found >= size) {
    return 0;
  }
  *position = static_cast<int32_t>(found);
  return 1;
}

}  // namespace

uint64_t find_first_bit(const void* map, uint64_t size) { return find_first<Bit::kSet>(bytes_of(map), size); }

uint64_t find_first_zero_bit(const void* map, uint64_t size) { return find_first<Bit::kClear>(bytes_of(map), size); }

uint64_t find_next_bit(const void* map, uint64_t size, uint64_t offset) {
  return find_next<Bit::kSet>(bytes_of(map), size, offset);
}

uint64_t kesa_find_next_zero_bit(const void* map, uint64_t size, uint64_t offset) {
  return find_next<Bit::kClear>(bytes_of(map), size, offset);
}

int kesa_bitop_findfirstsetbit(const void* map, uint32_t size, int32_t* position) {
  return map != nullptr && position != nullptr ? store_found(find_first_bit(map, size), size, position) : 0;
}

int kesa_bitop_findfirstclrbit(const void* map, uint32_t size, int32_t* position) {
  return map != nullptr && position != nullptr ? store_found(find_first_zero_bit(map, size), size, position) : 0;
}

int kesa_bitop_findnextsetbit(const void* map, uint32_t size, uint32_t offset, int32_t* position) {
  return map != nullptr && position != nullptr ? store_found(find_next_bit(map, size, offset), size, position) : 0;
}

uint64_t kesa_bitop_read_u64(const uint8_t* bytes, uint64_t count) {
  if (count == 0) {
    return 0;
  }
  if (count >= kWord) {
    return word_at(bytes, 0);
  }
  uint64_t word = 0;
  std::memcpy(&word, bytes, (count + 7) / 8);
  return word & ((uint64_t{1} << count) - 1);
}

uint32_t kesa_hweight32(uint32_t value) { return static_cast<uint32_t>(std::popcount(value)); }

uint32_t kesa_hweight64(uint64_t value) { return static_cast<uint32_t>(std::popcount(value)); }
