// AArch64: compares words with vector instructions.
#include <arm_neon.h>

#include <cstring>

#include "libtirn/arch/arch.h"

namespace tirn::arch {

size_t equal_words(const uint8_t* bytes, size_t words, uint64_t value) {
  const uint8x16_t wanted = vreinterpretq_u8_u64(vdupq_n_u64(value));
  size_t at = 0;
  while (words - at >= 8) {
    const uint8_t* const block = bytes + at * 8;
    const uint8x16_t low = vorrq_u8(veorq_u8(vld1q_u8(block), wanted), veorq_u8(vld1q_u8(block + 16), wanted));
    const uint8x16_t high = vorrq_u8(veorq_u8(vld1q_u8(block + 32), wanted), veorq_u8(vld1q_u8(block + 48), wanted));
    if (vmaxvq_u8(vorrq_u8(low, high)) != 0) {
      break;
    }
    at += 8;
  }
  for (uint64_t word; at < words; ++at) {
    std::memcpy(&word, bytes + at * 8, sizeof word);
    if (word != value) {
      break;
    }
  }
  return at;
}

}  // namespace tirn::arch
