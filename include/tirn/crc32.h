/*
 * Checksums of blocks: CRC-32C (Castagnoli: 0x1EDC6F41, least significant bit first, as in RFC 3720) and
 * CRC-16/T10-DIF (0x8BB7, most significant bit first), by special instructions of the processor and by table. All
 * variants of one checksum give the same values, and a running value from one variant may be continued by another at
 * any byte. A buffer needs no alignment. The only state is the choice that kesa_crc32_init makes.
 *
 * A running CRC-32C starts with all ones; its bitwise complement is the finished value. A CRC-16 usually starts with
 * 0 and has no final step.
 */
#ifndef TIRN_CRC32_H
#define TIRN_CRC32_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/*
 * Chooses the routines that kesa_crc32c, kesa_crc32cStart, kesa_crc32cContinue and kesa_crc32cContinue_with_cpy run;
 * these four must not be called before. kesa_Init calls it; a second call makes the same choice. On the one processor
 * model for which it chooses three parallel chains, the limit of Asm3Crc32c also applies to the four functions: pass
 * less than 2^31 bytes at once.
 * @safety MT-Safe, AS-Unsafe heap lock (for its log line)
 */
TIRN_API void kesa_crc32_init(void);

/*
 * Computes the CRC-32C of a buffer.
 * @returns the finished CRC-32C, or 0 if the buffer is NULL or the length is 0.
 * @safety MT-Safe race:buffer, AS-Safe
 */
TIRN_API uint32_t kesa_crc32c(const void* buffer, uint32_t length);

/*
 * Starts a running CRC-32C with a first piece.
 * @returns the running CRC-32C, or all ones if the buffer is NULL or the length is 0.
 * @safety MT-Safe race:buffer, AS-Safe
 */
TIRN_API uint32_t kesa_crc32cStart(const void* buffer, uint32_t length);

/*
 * Continues a running CRC-32C with the next piece.
 * @returns the running CRC-32C, or `crc` itself if the buffer is NULL or the length is 0.
 * @safety MT-Safe race:buffer, AS-Safe
 */
TIRN_API uint32_t kesa_crc32cContinue(uint32_t crc, const void* buffer, uint32_t length);

/*
 * Finishes a running CRC-32C.
 * @returns the finished CRC-32C, which is the bitwise complement of `crc`.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API uint32_t kesa_crc32cEnd(uint32_t crc);

/*
 * Continues a running CRC-32C with `source` and copies `source` to `destination` in the same pass. The two must not
 * overlap. No pointer is checked.
 * @returns the running CRC-32C.
 * @safety MT-Safe race:source race:destination, AS-Safe
 */
TIRN_API uint32_t kesa_crc32cContinue_with_cpy(uint32_t crc, void* destination, uint32_t length, const void* source);

/*
 * Continues a running CRC-32C by AsmCrc32c. The pointer is not checked.
 * @returns the running CRC-32C.
 * @safety MT-Safe race:buffer, AS-Safe
 */
TIRN_API uint32_t kesa_crc32cContinueHard(uint32_t crc, const void* buffer, uint32_t length);

/*
 * Continues a running CRC-32C by Asm3Crc32c, with the same limit on the length. The pointer is not checked.
 * @returns the running CRC-32C.
 * @safety MT-Safe race:buffer, AS-Safe
 */
TIRN_API uint32_t kesa_3crc32cContinueHard(uint32_t crc, const void* buffer, uint32_t length);

/*
 * Continues a running CRC-32C by table, one byte at a time. The pointer is not checked.
 * @returns the running CRC-32C.
 * @safety MT-Safe race:buffer, AS-Safe
 */
TIRN_API uint32_t kesa_crc32cContinueSoft(uint32_t crc, const void* buffer, uint32_t length);

/*
 * Computes the CRC-32C of a buffer by table, one byte at a time.
 * @returns the finished CRC-32C, or 0 if the buffer is NULL or the length is 0.
 * @safety MT-Safe race:buffer, AS-Safe
 */
TIRN_API uint32_t kesa_crc32c_soft(const void* buffer, uint32_t length);

/*
 * Continues a CRC-16/T10-DIF with a buffer, by crc16_t10dif.
 * @returns the CRC-16, or `crc` itself if the buffer is NULL or the length is 0.
 * @safety MT-Safe race:buffer, AS-Safe
 */
TIRN_API uint16_t kesa_crc16(uint16_t crc, const void* buffer, uint64_t length);

/*
 * Continues a CRC-16/T10-DIF with a buffer by table, one byte at a time. The pointer is not checked.
 * @returns the CRC-16.
 * @safety MT-Safe race:buffer, AS-Safe
 */
TIRN_API uint16_t kesa_crc16_soft(uint16_t crc, const void* buffer, uint64_t length);

/*
 * The routines that use the processor's instructions. Those without copy ignore `destination`. Those with copy store
 * each word of `source` at the same offset in `destination`; the two must not overlap. No pointer is checked.
 */

/*
 * Continues a running CRC-32C: on AArch64 by one chain of CRC instructions, on x86-64 by the fastest routine that the
 * processor supports.
 * @returns the running CRC-32C.
 * @safety MT-Safe race:source, AS-Safe
 */
TIRN_API uint32_t AsmCrc32c(void* destination, uint32_t length, uint32_t crc, const void* source);

/*
 * Continues a running CRC-32C by three parallel chains of CRC instructions. The length must be below 2^31; otherwise
 * nothing is read.
 * @returns the running CRC-32C, or `crc` itself if the length is 2^31 or more.
 * @safety MT-Safe race:source, AS-Safe
 */
TIRN_API uint32_t Asm3Crc32c(void* destination, uint32_t length, uint32_t crc, const void* source);

/*
 * Does the same as AsmCrc32c and copies `source` to `destination`.
 * @returns the running CRC-32C.
 * @safety MT-Safe race:source race:destination, AS-Safe
 */
TIRN_API uint32_t AsmCrc32cWithCpy(void* destination, uint32_t length, uint32_t crc, const void* source);

/*
 * Does the same as Asm3Crc32c and copies `source` to `destination`. The length must be below 2^31; otherwise nothing
 * is read or written.
 * @returns the running CRC-32C, or `crc` itself if the length is 2^31 or more.
 * @safety MT-Safe race:source race:destination, AS-Safe
 */
TIRN_API uint32_t Asm3Crc32cWithCpy(void* destination, uint32_t length, uint32_t crc, const void* source);

/*
 * Continues a CRC-16/T10-DIF with a buffer by carry-less multiplication.
 * @returns the CRC-16.
 * @safety MT-Safe race:buffer, AS-Safe
 */
TIRN_API uint16_t crc16_t10dif(uint16_t crc, const void* buffer, uint64_t length);

TIRN_EXTERN_C_END

#endif
