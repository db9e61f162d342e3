// The CRC-32C instruction of this processor. In an unnamed namespace: the files that include it are compiled for
// different processors, and none may get another's code.
#ifndef TIRN_CRC32_X86_64_UNIT_H
#define TIRN_CRC32_X86_64_UNIT_H

#include <nmmintrin.h>

#include <cstdint>

namespace tirn::crc32 {
namespace {

// The value stays in the 64 bits that the instruction works on: each step would clear its upper half once more.
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
