// A 128-bit register, in which every fold ends. It is in an unnamed namespace because each file that includes it is
// compiled for its own processor.
#ifndef TIRN_CRC32_X86_64_FORMS_LANE_H
#define TIRN_CRC32_X86_64_FORMS_LANE_H

#include <smmintrin.h>
#include <wmmintrin.h>

#include <cstddef>
#include <cstdint>

namespace tirn::crc32 {
namespace {

struct Lane {
  using Register = __m128i;
  static constexpr size_t kBytes = 16;

  static Register load(const uint8_t* bytes) { return _mm_loadu_si128(reinterpret_cast<const __m128i_u*>(bytes)); }
  static void store(uint8_t* bytes, Register value) { _mm_storeu_si128(reinterpret_cast<__m128i_u*>(bytes), value); }
  static void store_past_caches(uint8_t* bytes, Register value) {
    _mm_stream_si128(reinterpret_cast<__m128i*>(bytes), value);
  }
  static Register constant(uint64_t low, uint64_t high) {
    return _mm_set_epi64x(static_cast<int64_t>(high), static_cast<int64_t>(low));
  }
  // Returns `value` in the first 64 bits of the first lane, and zeros elsewhere.
  static Register first(uint64_t value) { return _mm_cvtsi64_si128(static_cast<int64_t>(value)); }
  static Register exclusive(Register a, Register b) { return _mm_xor_si128(a, b); }
  static Register fold(Register sum, Register multipliers, Register next) {
    return exclusive(exclusive(low_low(sum, multipliers), high_high(sum, multipliers)), next);
  }
  static Register reversed(Register a) { return shuffle(a, _mm_set_epi64x(0x0001020304050607, 0x08090A0B0C0D0E0F)); }
  static Register last_lane(Register a) { return a; }
  static __m128i sum_of_lanes(Register a) { return a; }
  static void leave() {}

  static Register low_low(Register a, Register b) { return _mm_clmulepi64_si128(a, b, 0x00); }
  static Register high_high(Register a, Register b) { return _mm_clmulepi64_si128(a, b, 0x11); }
  static Register shuffle(Register a, Register indices) { return _mm_shuffle_epi8(a, indices); }
  static Register choose(Register a, Register b, Register indices) { return _mm_blendv_epi8(a, b, indices); }
  static uint64_t low_word(Register a) { return static_cast<uint64_t>(_mm_cvtsi128_si64(a)); }
  static uint64_t high_word(Register a) { return static_cast<uint64_t>(_mm_extract_epi64(a, 1)); }
};

}  // namespace
}  // namespace tirn::crc32

#endif
