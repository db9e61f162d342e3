// Defines the form for processors that fold in 512-bit registers.
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
  // Uses a full mask, because the plain form makes the compiler warn about its own header.
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
  // Returns the last lane in its place, with zeros in the others.
  static Register last_lane(Register a) { return _mm512_maskz_mov_epi64(0xC0, a); }
  static __m128i sum_of_lanes(Register a) {
    const __m256i two = __builtin_shufflevector(a, a, 0, 1, 2, 3) ^ __builtin_shufflevector(a, a, 4, 5, 6, 7);
    return Lane::exclusive(_mm256_castsi256_si128(two), _mm256_extracti128_si256(two, 1));
  }
  static void leave() { _mm256_zeroupper(); }
};

// CRC-32C without copy works in rounds. In each round, the multiplier folds kFolds registers, while the CRC
// instruction takes three parts of kPart bytes from a region further on in memory. The lengths are such that both
// units need the same time. Memory sees two streams, which it delivers as fast as one. The picture above Rounds shows
// a piece of n rounds.
constexpr size_t kFolds = 32;
constexpr size_t kPart = 8 * kFolds;
constexpr size_t kRound = kFolds + 3 * kPart / Lanes512::kBytes;  // in registers
constexpr size_t kMostRounds = 512;

// The multipliers that move a sum by four registers and over what the CRC instruction takes in a number of rounds.
struct Leap {
  uint32_t low;
  uint32_t high;
};
constexpr uint32_t product_of(uint32_t a, uint32_t b) {
  uint32_t sum = 0;
  for (uint32_t term = Castagnoli::kOne; term != 0; term >>= 1) {
    sum ^= (a & term) != 0 ? b : 0;
    b = Castagnoli::times_x(b);
  }
  return sum;
}
constexpr auto leaps() {
  constexpr unsigned kBits = 8 * Lanes512::kBytes * kRegisters;
  constexpr uint32_t kPlace = power_of_x<Castagnoli>(8 * 3 * kPart);
  std::array<Leap, kMostRounds + 1> all{};
  all[0] = {static_cast<uint32_t>(Crc32cMove::low(kBits) >> 32),
            static_cast<uint32_t>(Crc32cMove::high(kBits) >> 32)};
  for (size_t i = 1; i < all.size(); ++i) {
    all[i] = {product_of(all[i - 1].low, kPlace), product_of(all[i - 1].high, kPlace)};
  }
  return all;
}
constexpr auto kLeaps = leaps();

// Folds most of a message in pieces. A piece of n rounds, in memory order (a register is 64 bytes):
//
//     sums        multiplier, 32 registers a round     CRC instruction, 768 bytes a round    next sums
//   +--+--+--+--+------------+-----+---------------+-------------+-----+-----------------+--+--+--+--+
//   |s0|s1|s2|s3|  round 0   | ... |  round n - 1  |   round 0   | ... |   round n - 1   |t0|t1|t2|t3|
//   +--+--+--+--+------------+-----+---------------+-------------+-----+-----------------+--+--+--+--+
//
// A round of the multiplier, on registers r0 ... r31, moves each sum eight times by 4 registers = 2048 bits:
//
//   s0 -> r0 -> r4 -> ... -> r28                   lane 0       lane 1       lane 2       lane 3
//   s1 -> r1 -> r5 -> ... -> r29                +-----+------+-----+------+-----+------+-----+------+
//   s2 -> r2 -> r6 -> ... -> r30            sum | low | high | low | high | low | high | low | high |
//   s3 -> r3 -> r7 -> ... -> r31                +-----+------+-----+------+-----+------+-----+------+
//                                  new lane = low * x^(2048 + 64) + high * x^2048 + same lane of the target register
//
// A round of the CRC instruction takes three chains side by side and joins them at its end:
//
//   +-----------+-----------+-----------+   Chain 0 starts with the CRC of the rounds before it.
//   |  chain 0  |  chain 1  |  chain 2  |   At the end, chain 0 is advanced by 512 bytes and
//   | 256 bytes | 256 bytes | 256 bytes |   chain 1 by 256 bytes.
//   +-----------+-----------+-----------+
//
// After the last round, the sums leap from the multiplier's last four registers to t0 ... t3, by 2048 bits and
// n * 768 bytes. The chains' CRC is added to the first bytes of t0.
//
// At the end of the message, join_registers() moves s0, s1 and s2 onto s3 by 1536, 1024 and 512 bits. Then
// join_lanes() moves lanes 0, 1 and 2 onto lane 3 by 384, 256 and 128 bits.
struct Rounds {
  using Sink = Nowhere<Unit>;

  void operator()(Sums<Lanes512>& sums, const uint8_t*& at, size_t& count) const {
    while (count >= kRound + kRegisters) {
      const size_t rounds = std::min((count - kRegisters) / kRound, kMostRounds);
      const uint8_t* words = at + rounds * kFolds * Lanes512::kBytes;
      Unit::Value crc = 0;
      for (size_t i = 0; i < rounds; ++i) {
        crc = take_round(sums, at, crc, words);
      }
      at = words;
      count -= rounds * kRound + kRegisters;
      const auto leap = Lanes512::constant(uint64_t{kLeaps[rounds].low} << 32, uint64_t{kLeaps[rounds].high} << 32);
      each_register([&](size_t i) __attribute__((always_inline)) {
        const auto next = take<Lanes512>(at, Sink{});
        sums[i] = Lanes512::fold(sums[i], leap, i == 0 ? Lanes512::exclusive(next, Lanes512::first(crc)) : next);
      });
    }
  }

 private:
  static Unit::Value take_round(Sums<Lanes512>& sums, const uint8_t*& at, Unit::Value crc, const uint8_t*& words) {
    const Sink sink;
    Chains<Sink> chains{{crc, 0, 0}, words, kPart, sink};
    for (size_t i = 0; i < kFolds; i += kRegisters) {
      fold_on<Lanes512, Crc32cMove>(
          sums, at, sink, [&](size_t) __attribute__((always_inline)) { chains.take_word(); });
    }
    words += 3 * kPart;
    constexpr uint64_t kOnce = advance_multiplier(kPart);
    constexpr uint64_t kTwice = advance_multiplier(2 * kPart);
    const __m128i products = Lane::exclusive(product(chains.value[0], kTwice), product(chains.value[1], kOnce));
    return Unit::step(0, Lane::low_word(products)) ^ chains.value[2];
  }
};

uint32_t crc32c_in_rounds(uint32_t crc, const uint8_t* source, size_t length) {
  return crc32c_by_folds<Lanes512>(crc, source, length, Nowhere<Unit>{}, Rounds{});
}

// Copies use folds alone: beside the stores, chains of the CRC instruction would gain nothing.
uint32_t crc32c_and_copy(uint32_t crc, uint8_t* destination, const uint8_t* source, size_t length) {
  return length < kStoresPassCaches
             ? crc32c_by_folds<Lanes512>(crc, source, length, CopyTo<Unit>(source, destination))
             : crc32c_past_caches<Lanes512>(crc, destination, source, length);
}

// CRC-16 of long messages removes blocks by adding them to later ones. The distances follow from a multiple of the
// polynomial that has few terms: x^18 + x^15 + x^13 + x^12 + x^9 + x^2 + 1.
constexpr unsigned kDistances[] = {3, 5, 6, 9, 16, 18};
constexpr size_t kBlocks = 18;
constexpr size_t kAdded = 3;
static_assert(distances_hold<8 * Lanes512::kBytes>(kDistances));

// Not inlined, so that the path for short messages needs no stack frame.
__attribute__((noinline)) uint16_t crc16_by_adding(uint16_t crc, const uint8_t* at, size_t length) {
  constexpr size_t kBytes = Lanes512::kBytes;
  __m512i blocks[kBlocks];
#pragma GCC unroll 32
  for (size_t i = 0; i < kBlocks; ++i) {
    blocks[i] = Lanes512::load(at + i * kBytes);
  }
  blocks[0] = Lanes512::exclusive(blocks[0], Lanes512::first(__builtin_bswap16(crc)));
  at += kBlocks * kBytes;
  length -= kBlocks * kBytes;
  for (; length >= kAdded * kBytes; length -= kAdded * kBytes, at += kAdded * kBytes) {
    take_by_adding<Lanes512, kAdded, kDistances>(blocks, at);
  }
  alignas(64) uint8_t left[(kBlocks + kAdded - 1) * kBytes];
  uint8_t* end = left;
#pragma GCC unroll 32
  for (const __m512i block : blocks) {
    Lanes512::store(end, block);
    end += kBytes;
  }
  for (; length >= kBytes; length -= kBytes, at += kBytes, end += kBytes) {
    Lanes512::store(end, Lanes512::load(at));
  }
  crc = crc16<Lanes512>(0, left, static_cast<size_t>(end - left));
  return length < Lane::kBytes ? crc16_by_table(crc, at, length) : crc16<Lane>(crc, at, length);
}

uint16_t crc16_of_any(uint16_t crc, const uint8_t* at, size_t length) {
  return length < (kBlocks + kAdded) * Lanes512::kBytes ? crc16<Lanes512>(crc, at, length)
                                                        : crc16_by_adding(crc, at, length);
}

}  // namespace

constinit const Form kFold512 = {"512-bit registers",
                                 [] {
                                   return __builtin_cpu_supports("avx512bw") != 0 &&
                                          __builtin_cpu_supports("avx512vl") != 0 &&
                                          __builtin_cpu_supports("vpclmulqdq") != 0;
                                 },
                                 crc32c_in_rounds, crc32c_and_copy, crc16_of_any};

}  // namespace tirn::crc32
