// The CRC-32C instruction of this processor. It is in an unnamed namespace because the files that include it are
// compiled for different processors and must not share code.
#ifndef TIRN_CRC32_X86_64_UNIT_H
#define TIRN_CRC32_X86_64_UNIT_H

#include <nmmintrin.h>

#include <cstdint>

namespace tirn::crc32 {
namespace {

// The value is 64 bits wide, like the operand of the instruction for 8 bytes. With a 32-bit value, each step would
// clear the upper half once more.
struct Unit {
  using Value = uint64_t;
  [[gnu::always_inline]] static Value step(Value crc, uint64_t word) { return _mm_crc32_u64(crc, word); }
  [[gnu::always_inline]] static Value step(Value crc, uint32_t word) {
    return _mm_crc32_u32(static_cast<uint32_t>(crc), word);
  }
  [[gnu::always_inline]] static Value step(Value crc, uint16_t word) {
    return _mm_crc32_u16(static_cast<uint32_t>(crc), word);
  }
  [[gnu::always_inline]] static Value step(Value crc, uint8_t word) {
    return _mm_crc32_u8(static_cast<uint32_t>(crc), word);
  }
};

}  // namespace
}  // namespace tirn::crc32

#endif
