// Defines the form for processors that fold in 256-bit registers.
#include <immintrin.h>

#include "libtirn/crc32/x86_64/forms/streams.h"

namespace tirn::crc32 {
namespace {

struct Lanes256 {
  using Register = __m256i;
  static constexpr size_t kBytes = 32;

  static Register load(const uint8_t* bytes) { return _mm256_loadu_si256(reinterpret_cast<const __m256i_u*>(bytes)); }
  static void store(uint8_t* bytes, Register value) {
    _mm256_storeu_si256(reinterpret_cast<__m256i_u*>(bytes), value);
  }
  static void store_past_caches(uint8_t* bytes, Register value) {
    _mm256_stream_si256(reinterpret_cast<__m256i*>(bytes), value);
  }
  static Register constant(uint64_t low, uint64_t high) {
    return _mm256_broadcastsi128_si256(Lane::constant(low, high));
  }
  static Register first(uint64_t value) { return _mm256_zextsi128_si256(Lane::first(value)); }
  static Register exclusive(Register a, Register b) { return _mm256_xor_si256(a, b); }
  static Register fold(Register sum, Register multipliers, Register next) {
    return exclusive(
        exclusive(_mm256_clmulepi64_epi128(sum, multipliers, 0x00), _mm256_clmulepi64_epi128(sum, multipliers, 0x11)),
        next);
  }
  static Register reversed(Register a) {
    return _mm256_shuffle_epi8(a, constant(0x08090A0B0C0D0E0F, 0x0001020304050607));
  }
  // Returns the last lane in its place, with zeros in the other.
  static Register last_lane(Register a) { return _mm256_blend_epi32(Register{}, a, 0xF0); }
  static __m128i sum_of_lanes(Register a) {
    return Lane::exclusive(_mm256_castsi256_si128(a), _mm256_extracti128_si256(a, 1));
  }
  // Clears the upper halves of the registers. Otherwise the caller's own 128-bit instructions take twice their time.
  // The compiler does this by itself in some functions only.
  static void leave() { _mm256_zeroupper(); }
};

}  // namespace

constinit const Form kFold256 = {
    "256-bit registers",
    [] { return __builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("vpclmulqdq") != 0; },
    crc32c_without_copy<Lanes256, 5>, crc32c_with_copy<Lanes256, 5>, crc16<Lanes256>};

}  // namespace tirn::crc32
