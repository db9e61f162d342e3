// The CRC-32C instruction of this processor. In an unnamed namespace: the files that include it are compiled for
// different processors, and none may get another's code.
#ifndef TIRN_CRC32_X86_64_UNIT_H
#define TIRN_CRC32_X86_64_UNIT_H

#include <nmmintrin.h>

#include <cstdint>

namespace tirn::crc32 {
namespace {

struct Unit {
  static uint32_t step(uint32_t crc, uint64_t word) { return static_cast<uint32_t>(_mm_crc32_u64(crc, word)); }
  static uint32_t step(uint32_t crc, uint32_t word) { return _mm_crc32_u32(crc, word); }
  static uint32_t step(uint32_t crc, uint16_t word) { return _mm_crc32_u16(crc, word); }
  static uint32_t step(uint32_t crc, uint8_t word) { return _mm_crc32_u8(crc, word); }
};

}  // namespace
}  // namespace tirn::crc32

#endif
