// The polynomials of the two checksums, with the tables and multipliers that the compiler computes from them.
#ifndef TIRN_CRC32_POLYNOMIAL_H
#define TIRN_CRC32_POLYNOMIAL_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace tirn::crc32 {

// CRC-32C. It is reflected: bit 31 of a remainder is the coefficient of x^0.
struct Castagnoli {
  using Remainder = uint32_t;
  static constexpr Remainder kOne = 0x80000000;
  static constexpr Remainder times_x(Remainder r) { return r >> 1 ^ (r & 1 ? 0x82F63B78 : 0); }
};

// CRC-16/T10-DIF. It is not reflected: bit 0 is the coefficient of x^0.
struct T10Dif {
  using Remainder = uint16_t;
  static constexpr Remainder kOne = 1;
  static constexpr Remainder times_x(Remainder r) {
    return static_cast<Remainder>(r << 1 ^ (r & 0x8000 ? 0x8BB7 : 0));
  }
};

// Returns x^n modulo the polynomial.
template <class Polynomial>
constexpr auto power_of_x(unsigned n) {
  auto remainder = Polynomial::kOne;
  while (n-- > 0) {
    remainder = Polynomial::times_x(remainder);
  }
  return remainder;
}

// Returns the table for taking a whole byte at once. Entry b is what byte b adds to the rest of the CRC register
// while its eight bits are shifted out.
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

// Always inlined, like everything that forms for different processors share. Otherwise the linker would keep one of
// the copies, which might use instructions that the running processor lacks.
[[gnu::always_inline]] inline uint16_t crc16_by_table(uint16_t crc, const uint8_t* bytes, size_t length) {
  for (; length > 0; --length) {
    crc = static_cast<uint16_t>(crc << 8 ^ kCrc16Table[crc >> 8 ^ *bytes++]);
  }
  return crc;
}

// Returns the multiplier that advances a CRC-32C through `bytes` zero bytes: take the 64-bit carry-less product of
// the value and the multiplier through one CRC step of 8 bytes. That step multiplies by x^32, hence the "- 32". The
// product of two reflected 32-bit values has x^0 in bit 62, where a 64-bit word has it in bit 63, hence the shift.
constexpr uint64_t advance_multiplier(unsigned bytes) {
  return uint64_t{power_of_x<Castagnoli>(8 * bytes - 32)} << 1;
}

}  // namespace tirn::crc32

#endif
