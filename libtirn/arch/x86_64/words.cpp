// x86-64: compares words with vector instructions.
#include <immintrin.h>

#include <cstring>

#include "libtirn/arch/arch.h"

namespace tirn::arch {
namespace {

// The words of a block, which are compared together.
constexpr size_t kBlock = 32;

uint64_t word_at(const uint8_t* bytes, size_t index) {
  uint64_t word;
  std::memcpy(&word, bytes + index * 8, sizeof word);
  return word;
}

// Each counts the words at the front that are all ones (kOnes) or 0, as far as whole blocks go. Of the first block
// with another word, the AVX2 form counts whole vectors and the SSE4.1 form nothing: the caller compares the rest.
template <bool kOnes>
__attribute__((target("avx2"))) size_t equal_in_blocks_avx2(const uint8_t* bytes, size_t blocks) {
  constexpr size_t kVectors = kBlock / 4;
  const __m256i ones = _mm256_set1_epi64x(-1);
  for (size_t block = 0; block < blocks; ++block) {
    const auto* const at = reinterpret_cast<const __m256i_u*>(bytes + block * kBlock * 8);
    __m256i all = _mm256_loadu_si256(at);
#pragma GCC unroll 8
    for (size_t i = 1; i < kVectors; ++i) {
      const __m256i next = _mm256_loadu_si256(at + i);
      all = kOnes ? _mm256_and_si256(all, next) : _mm256_or_si256(all, next);
    }
    if (kOnes ? !_mm256_testc_si256(all, ones) : !_mm256_testz_si256(all, all)) {
      size_t same = 0;
      for (__m256i one = _mm256_loadu_si256(at); kOnes ? _mm256_testc_si256(one, ones) : _mm256_testz_si256(one, one);
           one = _mm256_loadu_si256(at + same)) {
        ++same;
      }
      return block * kBlock + same * 4;
    }
  }
  return blocks * kBlock;
}

template <bool kOnes>
size_t equal_in_blocks_sse41(const uint8_t* bytes, size_t blocks) {
  constexpr size_t kVectors = kBlock / 2;
  for (size_t block = 0; block < blocks; ++block) {
    const auto* const at = reinterpret_cast<const __m128i_u*>(bytes + block * kBlock * 8);
    __m128i all = _mm_loadu_si128(at);
#pragma GCC unroll 16
    for (size_t i = 1; i < kVectors; ++i) {
      const __m128i next = _mm_loadu_si128(at + i);
      all = kOnes ? _mm_and_si128(all, next) : _mm_or_si128(all, next);
    }
    if (kOnes ? !_mm_test_all_ones(all) : !_mm_testz_si128(all, all)) {
      return block * kBlock;
    }
  }
  return blocks * kBlock;
}

template <bool kOnes>
size_t equal_in_blocks(const uint8_t* bytes, size_t blocks) {
  return __builtin_cpu_supports("avx2") ? equal_in_blocks_avx2<kOnes>(bytes, blocks)
                                        : equal_in_blocks_sse41<kOnes>(bytes, blocks);
}

}  // namespace

size_t equal_words(const uint8_t* bytes, size_t words, uint64_t value) {
  size_t at = 0;
  if (words >= kBlock) {
    at = value == 0 ? equal_in_blocks<false>(bytes, words / kBlock) : equal_in_blocks<true>(bytes, words / kBlock);
  }
  while (at < words && word_at(bytes, at) == value) {
    ++at;
  }
  return at;
}

}  // namespace tirn::arch
