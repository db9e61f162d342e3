#include <immintrin.h>

#include "libtirn/crc32/x86_64/forms/streams.h"

namespace tirn::crc32 {
namespace {

struct Lanes512 {
  using Register = __m512i;
  static constexpr size_t kBytes = 64;

  static Register load(const uint8_t* bytes) { return _mm512_loadu_si512(bytes); }
  static void store(uint8_t* bytes, Register value) { _mm512_storeu_si512(bytes, value); }
  static void store_past_caches(uint8_t* bytes, Register value) {
    _mm512_stream_si512(reinterpret_cast<__m512i*>(bytes), value);
  }
  // With full masks: the plain forms of these two have the compiler warn of its own header.
  static Register constant(uint64_t low, uint64_t high) {
    return _mm512_maskz_broadcast_i32x4(0xFFFF, Lane::constant(low, high));
  }
  static Register first(uint64_t value) { return _mm512_zextsi128_si512(Lane::first(value)); }
  static Register exclusive(Register a, Register b) { return _mm512_xor_si512(a, b); }
  static Register fold(Register sum, Register multipliers, Register next) {
    constexpr int kExclusiveOfThree = 0x96;
    return _mm512_ternarylogic_epi64(_mm512_clmulepi64_epi128(sum, multipliers, 0x00),
                                     _mm512_clmulepi64_epi128(sum, multipliers, 0x11), next, kExclusiveOfThree);
  }
  static Register reversed(Register a) {
    return _mm512_shuffle_epi8(a, constant(0x08090A0B0C0D0E0F, 0x0001020304050607));
  }
  template <int kLane>
  static __m128i lane(Register a) {
    return _mm512_maskz_extracti32x4_epi32(0xF, a, kLane);
  }
};

}  // namespace

constinit const Form kFold512 = {"512-bit registers",
                                 [] {
                                   return __builtin_cpu_supports("avx512bw") != 0 &&
                                          __builtin_cpu_supports("avx512vl") != 0 &&
                                          __builtin_cpu_supports("vpclmulqdq") != 0;
                                 },
                                 crc32c_without_copy<Lanes512, 3>, crc32c_with_copy<Lanes512, 3>, crc16<Lanes512>};

}  // namespace tirn::crc32
