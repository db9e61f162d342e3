/*
 * Bit maps and byte order. Bit n of a map is bit n % 8 of byte n / 8; sizes and offsets are in bits. A map needs no
 * alignment and may have any length; no byte behind its last is read. The functions hold no state.
 */
#ifndef TIRN_BITOPS_H
#define TIRN_BITOPS_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* The lowest set bit, or `size`.
 * @safety MT-Safe race:map, AS-Safe */
TIRN_API uint64_t find_first_bit(const void* map, uint64_t size);

/* The lowest clear bit, or `size`.
 * @safety MT-Safe race:map, AS-Safe */
TIRN_API uint64_t find_first_zero_bit(const void* map, uint64_t size);

/* The lowest set bit at or above `offset`, or `size`.
 * @safety MT-Safe race:map, AS-Safe */
TIRN_API uint64_t find_next_bit(const void* map, uint64_t size, uint64_t offset);

/* The lowest clear bit at or above `offset`, or `size`.
 * @safety MT-Safe race:map, AS-Safe */
TIRN_API uint64_t kesa_find_next_zero_bit(const void* map, uint64_t size, uint64_t offset);

/* Stores the lowest set bit and gives 1; 0 with nothing stored if there is none, or a pointer is NULL.
 * @safety MT-Safe race:map, AS-Safe */
TIRN_API int kesa_bitop_findfirstsetbit(const void* map, uint32_t size, int32_t* position);

/* The same for the lowest clear bit.
 * @safety MT-Safe race:map, AS-Safe */
TIRN_API int kesa_bitop_findfirstclrbit(const void* map, uint32_t size, int32_t* position);

/* The same for the lowest set bit at or above `offset`.
 * @safety MT-Safe race:map, AS-Safe */
TIRN_API int kesa_bitop_findnextsetbit(const void* map, uint32_t size, uint32_t offset, int32_t* position);

/* Sets a bit, atomically on its byte and without any memory order. The result means nothing.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint32_t kesa_set_bit(uint32_t bit, void* map);

/* Clears a bit, atomically on its byte and without any memory order.
 * @safety MT-Safe, AS-Safe */
TIRN_API void kesa_clear_bit(uint32_t bit, void* map);

/* Sets a bit and gives its former value, atomically on its byte and without any memory order.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_test_and_set_bit(uint32_t bit, void* map);

/* Clears a bit and gives its former value, atomically on its byte and without any memory order.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_test_and_clear_bit(uint32_t bit, void* map);

/* The number of set bits.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint32_t kesa_hweight32(uint32_t value);

/* The number of set bits.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint32_t kesa_hweight64(uint64_t value);

/* The first `count` bits at `bytes` as a little-endian number, the bits above them zero; 8 bytes for a count of 64
 * or more, 0 for a count of 0.
 * @safety MT-Safe race:bytes, AS-Safe */
TIRN_API uint64_t kesa_bitop_read_u64(const uint8_t* bytes, uint64_t count);

/* The value in little-endian order.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint16_t kesa_endian_cputolittle16(uint16_t value);

/* The value in little-endian order.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint32_t kesa_endian_cputolittle32(uint32_t value);

/* The value in little-endian order.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint64_t kesa_endian_cputolittle64(uint64_t value);

/* A little-endian value in the host's order.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint16_t kesa_endian_littletocpu16(uint16_t value);

/* A little-endian value in the host's order.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint32_t kesa_endian_littletocpu32(uint32_t value);

/* A little-endian value in the host's order.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint64_t kesa_endian_littletocpu64(uint64_t value);

/* The value in big-endian order.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint16_t kesa_endian_cputobig16(uint16_t value);

/* The value in big-endian order.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint32_t kesa_endian_cputobig32(uint32_t value);

/* The value in big-endian order.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint64_t kesa_endian_cputobig64(uint64_t value);

/* A big-endian value in the host's order.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint16_t kesa_endian_bigtocpu16(uint16_t value);

/* A big-endian value in the host's order.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint32_t kesa_endian_bigtocpu32(uint32_t value);

/* A big-endian value in the host's order.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint64_t kesa_endian_bigtocpu64(uint64_t value);

TIRN_EXTERN_C_END

#endif
