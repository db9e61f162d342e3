// Implements the byte-order conversions of tirn/bitops.h.
#include <bit>

#include "tirn/bitops.h"

// Both processors are little-endian. On a big-endian one, the two halves of this file would change places.
static_assert(std::endian::native == std::endian::little);

uint16_t kesa_endian_cputolittle16(uint16_t value) { return value; }
uint32_t kesa_endian_cputolittle32(uint32_t value) { return value; }
uint64_t kesa_endian_cputolittle64(uint64_t value) { return value; }

uint16_t kesa_endian_littletocpu16(uint16_t value) { return value; }
uint32_t kesa_endian_littletocpu32(uint32_t value) { return value; }
uint64_t kesa_endian_littletocpu64(uint64_t value) { return value; }

uint16_t kesa_endian_cputobig16(uint16_t value) { return __builtin_bswap16(value); }
uint32_t kesa_endian_cputobig32(uint32_t value) { return __builtin_bswap32(value); }
uint64_t kesa_endian_cputobig64(uint64_t value) { return __builtin_bswap64(value); }

uint16_t kesa_endian_bigtocpu16(uint16_t value) { return __builtin_bswap16(value); }
uint32_t kesa_endian_bigtocpu32(uint32_t value) { return __builtin_bswap32(value); }
uint64_t kesa_endian_bigtocpu64(uint64_t value) { return __builtin_bswap64(value); }
