#include <immintrin.h>

#include <cstring>

#include "libtirn/arch/arch.h"

namespace tirn::arch {
namespace {

// A block of this many words is looked at as one.
constexpr size_t kBlock = 16;

uint64_t word_at(const uint8_t* bytes, size_t index) {
  uint64_t word;
  std::memcpy(&word, bytes + index * 8, sizeof word);
  return word;
}

// Each gives the number of whole blocks at the front that equal `value`.
__attribute__((target("avx2"))) size_t equal_blocks_avx2(const uint8_t* bytes, size_t blocks, uint64_t value) {
  const __m256i wanted = _mm256_set1_epi64x(static_cast<long long>(value));
  for (size_t block = 0; block < blocks; ++block) {
    const auto* const at = reinterpret_cast<const __m256i_u*>(bytes + block * kBlock * 8);
    __m256i any = _mm256_xor_si256(_mm256_loadu_si256(at), wanted);
    for (size_t i = 1; i < 4; ++i) {
      any = _mm256_or_si256(any, _mm256_xor_si256(_mm256_loadu_si256(at + i), wanted));
    }
    if (!_mm256_testz_si256(any, any)) {
      return block;
    }
  }
  return blocks;
}

size_t equal_blocks_sse41(const uint8_t* bytes, size_t blocks, uint64_t value) {
  const __m128i wanted = _mm_set1_epi64x(static_cast<long long>(value));
  for (size_t block = 0; block < blocks; ++block) {
    const uint8_t* const at = bytes + block * kBlock * 8;
    __m128i any = _mm_setzero_si128();
    for (size_t i = 0; i < 8; ++i) {
      any =
          _mm_or_si128(any, _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i_u*>(at + i * 16)), wanted));
    }
    if (!_mm_testz_si128(any, any)) {
      return block;
    }
  }
  return blocks;
}

}  // namespace

size_t equal_words(const uint8_t* bytes, size_t words, uint64_t value) {
  size_t at = 0;
  if (words >= kBlock) {
    const size_t blocks = words / kBlock;
    at = kBlock * (__builtin_cpu_supports("avx2") ? equal_blocks_avx2(bytes, blocks, value)
                                                  : equal_blocks_sse41(bytes, blocks, value));
  }
  while (at < words && word_at(bytes, at) == value) {
    ++at;
  }
  return at;
}

}  // namespace tirn::arch
