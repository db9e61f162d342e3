// The two polynomials and what follows from them, computed by the compiler: tables and multipliers.
#ifndef TIRN_CRC32_POLYNOMIAL_H
#define TIRN_CRC32_POLYNOMIAL_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace tirn::crc32 {

// CRC-32C. Reflected: bit 31 of a remainder belongs to x^0.
struct Castagnoli {
  using Remainder = uint32_t;
  static constexpr Remainder kOne = 0x80000000;
  static constexpr Remainder times_x(Remainder r) { return r >> 1 ^ (r & 1 ? 0x82F63B78 : 0); }
};

// CRC-16/T10-DIF. Not reflected: bit 0 belongs to x^0.
struct T10Dif {
  using Remainder = uint16_t;
  static constexpr Remainder kOne = 1;
  static constexpr Remainder times_x(Remainder r) {
    return static_cast<Remainder>(r << 1 ^ (r & 0x8000 ? 0x8BB7 : 0));
  }
};

// x^n modulo the polynomial.
template <class Polynomial>
constexpr auto power_of_x(unsigned n) {
  auto remainder = Polynomial::kOne;
  while (n-- > 0) {
    remainder = Polynomial::times_x(remainder);
  }
  return remainder;
}

// What a byte that leaves the register adds to what stays: the eight steps of its bits.
template <class Polynomial>
constexpr auto table_of_bytes() {
  std::array<typename Polynomial::Remainder, 256> table{};
  for (unsigned byte = 0; byte < 256; ++byte) {
    auto r = static_cast<typename Polynomial::Remainder>(Polynomial::kOne == 1 ? byte << 8 : byte);
    for (int bit = 0; bit < 8; ++bit) {
      r = Polynomial::times_x(r);
    }
    table[byte] = r;
  }
  return table;
}

inline constexpr auto kCrc32cTable = table_of_bytes<Castagnoli>();
inline constexpr auto kCrc16Table = table_of_bytes<T10Dif>();

// Always inline, as all that forms for different processors share: of two copies the linker keeps either.
[[gnu::always_inline]] inline uint16_t crc16_by_table(uint16_t crc, const uint8_t* bytes, size_t length) {
  for (; length > 0; --length) {
    crc = static_cast<uint16_t>(crc << 8 ^ kCrc16Table[crc >> 8 ^ *bytes++]);
  }
  return crc;
}

// CRC-32C: the 64-bit product of a value and this, taken through one CRC step of 8 bytes, is the value advanced through
// `bytes` zero bytes. The step itself is worth 32 bits, and the last bit of a 64-bit product is a bit below its last.
constexpr uint64_t advance_multiplier(unsigned bytes) {
  return uint64_t{power_of_x<Castagnoli>(8 * bytes - 32)} << 1;
}

}  // namespace tirn::crc32

#endif
