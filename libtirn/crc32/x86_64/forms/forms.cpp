// Defines the form that every processor has, and the multipliers that join chains.
#include "libtirn/crc32/x86_64/forms/forms.h"

#include "libtirn/crc32/chain.h"
#include "libtirn/crc32/polynomial.h"
#include "libtirn/crc32/x86_64/unit.h"

namespace tirn::crc32 {
namespace {

// Returns r times x^-1.
constexpr uint32_t divided_by_x(uint32_t r) {
  return (r & Castagnoli::kOne) != 0 ? (r ^ Castagnoli::times_x(1)) << 1 | 1 : r << 1;
}
static_assert(divided_by_x(Castagnoli::times_x(0x12345679)) == 0x12345679);

// Returns the multipliers: x^(64 n - 33) for n steps of 8 bytes. A CRC step of 8 bytes multiplies by x^32. The
// product of two reflected values ends one bit short of its register, which multiplies by x once more.
constexpr Advances advances() {
  uint32_t power = Castagnoli::kOne;
  for (int i = 0; i < 32 + 1; ++i) {
    power = divided_by_x(power);
  }
  Advances all{};
  for (size_t steps = 0; steps <= 3 * kMostSteps; ++steps) {
    if (steps <= kMostSteps) {
      all.by[steps].once = power;
    }
    if (steps % 2 == 0 && steps <= 2 * kMostSteps) {
      all.by[steps / 2].twice = power;
    }
    if (steps % 3 == 0) {
      all.by[steps / 3].thrice = power;
    }
    for (int byte = 0; byte < 8; ++byte) {
      power = power >> 8 ^ kCrc32cTable[power & 0xFF];
    }
  }
  return all;
}

}  // namespace

constexpr Advances kAdvances = advances();

constinit const Form kChain = {"one chain", [] { return true; },
                               [](uint32_t crc, const uint8_t* source, size_t length) {
                                 return chain<Unit>(crc, source, length, Nowhere<Unit>{});
                               },
                               [](uint32_t crc, uint8_t* destination, const uint8_t* source, size_t length) {
                                 return chain<Unit>(crc, source, length, CopyTo<Unit>(source, destination));
                               },
                               crc16_by_table};

}  // namespace tirn::crc32
