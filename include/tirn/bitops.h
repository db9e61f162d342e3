/*
 * Bit maps and byte order. Bit n of a map is bit n % 8 of byte n / 8; sizes and offsets are in bits. A map needs no
 * alignment and may have any length; nothing after its last byte is read. The functions keep no state.
 */
#ifndef TIRN_BITOPS_H
#define TIRN_BITOPS_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/*
 * Finds the lowest set bit.
 * @returns its number, or `size` if there is none.
 * @safety MT-Safe race:map, AS-Safe
 */
TIRN_API uint64_t find_first_bit(const void* map, uint64_t size);

/*
 * Finds the lowest clear bit.
 * @returns its number, or `size` if there is none.
 * @safety MT-Safe race:map, AS-Safe
 */
TIRN_API uint64_t find_first_zero_bit(const void* map, uint64_t size);

/*
 * Finds the lowest set bit at or above `offset`.
 * @returns its number, or `size` if there is none.
 * @safety MT-Safe race:map, AS-Safe
 */
TIRN_API uint64_t find_next_bit(const void* map, uint64_t size, uint64_t offset);

/*
 * Finds the lowest clear bit at or above `offset`.
 * @returns its number, or `size` if there is none.
 * @safety MT-Safe race:map, AS-Safe
 */
TIRN_API uint64_t kesa_find_next_zero_bit(const void* map, uint64_t size, uint64_t offset);

/*
 * Finds the lowest set bit and stores its number in `*position`.
 * @returns 1, or 0 with nothing stored if there is no such bit or a pointer is NULL.
 * @safety MT-Safe race:map, AS-Safe
 */
TIRN_API int kesa_bitop_findfirstsetbit(const void* map, uint32_t size, int32_t* position);

/*
 * Finds the lowest clear bit and stores its number in `*position`.
 * @returns 1, or 0 with nothing stored if there is no such bit or a pointer is NULL.
 * @safety MT-Safe race:map, AS-Safe
 */
TIRN_API int kesa_bitop_findfirstclrbit(const void* map, uint32_t size, int32_t* position);

/*
 * Finds the lowest set bit at or above `offset` and stores its number in `*position`.
 * @returns 1, or 0 with nothing stored if there is no such bit or a pointer is NULL.
 * @safety MT-Safe race:map, AS-Safe
 */
TIRN_API int kesa_bitop_findnextsetbit(const void* map, uint32_t size, uint32_t offset, int32_t* position);

/*
 * Sets a bit, atomically on its byte and without any memory order.
 * @returns an unspecified value; ignore it.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API uint32_t kesa_set_bit(uint32_t bit, void* map);

/*
 * Clears a bit, atomically on its byte and without any memory order.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API void kesa_clear_bit(uint32_t bit, void* map);

/*
 * Sets a bit, atomically on its byte and without any memory order.
 * @returns the former value of the bit.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_test_and_set_bit(uint32_t bit, void* map);

/*
 * Clears a bit, atomically on its byte and without any memory order.
 * @returns the former value of the bit.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_test_and_clear_bit(uint32_t bit, void* map);

/*
 * Counts the set bits of a value.
 * @returns their number.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API uint32_t kesa_hweight32(uint32_t value);

/*
 * Counts the set bits of a value.
 * @returns their number.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API uint32_t kesa_hweight64(uint64_t value);

/*
 * Reads the first `count` bits at `bytes` as a little-endian number; the bits above them are zero. A count of 64 or
 * more reads 8 bytes, a count of 0 reads nothing.
 * @returns the number, 0 for a count of 0.
 * @safety MT-Safe race:bytes, AS-Safe
 */
TIRN_API uint64_t kesa_bitop_read_u64(const uint8_t* bytes, uint64_t count);

/*
 * Converts a value from the byte order of the host to little-endian order.
 * @returns the converted value.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API uint16_t kesa_endian_cputolittle16(uint16_t value);

/*
 * Converts a value from the byte order of the host to little-endian order.
 * @returns the converted value.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API uint32_t kesa_endian_cputolittle32(uint32_t value);

/*
 * Converts a value from the byte order of the host to little-endian order.
 * @returns the converted value.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API uint64_t kesa_endian_cputolittle64(uint64_t value);

/*
 * Converts a value from little-endian order to the byte order of the host.
 * @returns the converted value.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API uint16_t kesa_endian_littletocpu16(uint16_t value);

/*
 * Converts a value from little-endian order to the byte order of the host.
 * @returns the converted value.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API uint32_t kesa_endian_littletocpu32(uint32_t value);

/*
 * Converts a value from little-endian order to the byte order of the host.
 * @returns the converted value.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API uint64_t kesa_endian_littletocpu64(uint64_t value);

/*
 * Converts a value from the byte order of the host to big-endian order.
 * @returns the converted value.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API uint16_t kesa_endian_cputobig16(uint16_t value);

/*
 * Converts a value from the byte order of the host to big-endian order.
 * @returns the converted value.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API uint32_t kesa_endian_cputobig32(uint32_t value);

/*
 * Converts a value from the byte order of the host to big-endian order.
 * @returns the converted value.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API uint64_t kesa_endian_cputobig64(uint64_t value);

/*
 * Converts a value from big-endian order to the byte order of the host.
 * @returns the converted value.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API uint16_t kesa_endian_bigtocpu16(uint16_t value);

/*
 * Converts a value from big-endian order to the byte order of the host.
 * @returns the converted value.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API uint32_t kesa_endian_bigtocpu32(uint32_t value);

/*
 * Converts a value from big-endian order to the byte order of the host.
 * @returns the converted value.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API uint64_t kesa_endian_bigtocpu64(uint64_t value);

TIRN_EXTERN_C_END

#endif
