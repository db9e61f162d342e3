// Finds the first set bit of a map in several ways.
#include <bit>
#include <bitset>
#include <cstring>

#include "peers/peers.h"

namespace {

// In this standard library a bitset is an array of words and nothing else, so a map can be read as one.
template <size_t kBits>
uint64_t first_of_bitset(const void* map) {
  static_assert(sizeof(std::bitset<kBits>) == kBits / 8);
  return static_cast<const std::bitset<kBits>*>(map)->_Find_first();
}

}  // namespace

uint64_t peer_first_bit_by_bits(const void* map, uint64_t size) {
  const auto* const bytes = static_cast<const uint8_t*>(map);
  for (uint64_t bit = 0; bit < size; ++bit) {
    if (bytes[bit / 8] >> bit % 8 & 1) {
      return bit;
    }
  }
  return size;
}

uint64_t peer_first_bit_by_words(const void* map, uint64_t size) {
  const auto* const bytes = static_cast<const uint8_t*>(map);
  for (uint64_t bit = 0; bit < size; bit += 64) {
    uint64_t word;
    std::memcpy(&word, bytes + bit / 8, sizeof word);
    if (word != 0) {
      return bit + static_cast<uint64_t>(std::countr_zero(word));
    }
  }
  return size;
}

uint64_t peer_first_bit_bitset_256(const void* map) { return first_of_bitset<256>(map); }

uint64_t peer_first_bit_bitset_65536(const void* map) { return first_of_bitset<65536>(map); }
