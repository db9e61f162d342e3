/*
 * Checksums of blocks: CRC-32C (Castagnoli: 0x1EDC6F41, least significant bit first, as in RFC 3720) and CRC-16/T10-DIF
 * (0x8BB7, most significant bit first), by the processor's own means and by table. All forms of one checksum give the
 * same values, and running values may be handed from one form to another at any byte. A buffer needs no alignment. No
 * function holds state but for the choice that kesa_crc32_init makes.
 *
 * A finished CRC-32C is the inverse of a running one that began with all ones. A CRC-16 begins with 0 as a rule and has
 * no last step.
 */
#ifndef TIRN_CRC32_H
#define TIRN_CRC32_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* Chooses what kesa_crc32c, kesa_crc32cStart, kesa_crc32cContinue and kesa_crc32cContinue_with_cpy run; until then
 * they must not be called. kesa_Init does it; a second call chooses the same. On the one processor for which it chooses
 * the three chains, Asm3Crc32c's limit holds for the four as well: give them less than 2^31 bytes at once.
 * @safety MT-Safe, AS-Unsafe heap lock (for its log line) */
TIRN_API void kesa_crc32_init(void);

/* The finished CRC-32C of a buffer; 0 for NULL or a length of 0.
 * @safety MT-Safe race:buffer, AS-Safe */
TIRN_API uint32_t kesa_crc32c(const void* buffer, uint32_t length);

/* The running CRC-32C of a first piece; all ones for NULL or a length of 0.
 * @safety MT-Safe race:buffer, AS-Safe */
TIRN_API uint32_t kesa_crc32cStart(const void* buffer, uint32_t length);

/* A running CRC-32C carried on through the next piece; `crc` itself for NULL or a length of 0.
 * @safety MT-Safe race:buffer, AS-Safe */
TIRN_API uint32_t kesa_crc32cContinue(uint32_t crc, const void* buffer, uint32_t length);

/* The finished value of a running CRC-32C: its inverse.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint32_t kesa_crc32cEnd(uint32_t crc);

/* A running CRC-32C carried on through `source`, which is copied to `destination` on the way. The two must not overlap;
 * no pointer is tested.
 * @safety MT-Safe race:source race:destination, AS-Safe */
TIRN_API uint32_t kesa_crc32cContinue_with_cpy(uint32_t crc, void* destination, uint32_t length, const void* source);

/* kesa_crc32cContinue by AsmCrc32c, without its tests.
 * @safety MT-Safe race:buffer, AS-Safe */
TIRN_API uint32_t kesa_crc32cContinueHard(uint32_t crc, const void* buffer, uint32_t length);

/* kesa_crc32cContinue by Asm3Crc32c, without its tests and within its limit.
 * @safety MT-Safe race:buffer, AS-Safe */
TIRN_API uint32_t kesa_3crc32cContinueHard(uint32_t crc, const void* buffer, uint32_t length);

/* kesa_crc32cContinue by table, a byte at a time; the pointer is not tested.
 * @safety MT-Safe race:buffer, AS-Safe */
TIRN_API uint32_t kesa_crc32cContinueSoft(uint32_t crc, const void* buffer, uint32_t length);

/* kesa_crc32c by table, a byte at a time.
 * @safety MT-Safe race:buffer, AS-Safe */
TIRN_API uint32_t kesa_crc32c_soft(const void* buffer, uint32_t length);

/* The CRC-16/T10-DIF of a buffer by crc16_t10dif; `crc` itself for NULL or a length of 0.
 * @safety MT-Safe race:buffer, AS-Safe */
TIRN_API uint16_t kesa_crc16(uint16_t crc, const void* buffer, uint64_t length);

/* The same by table, a byte at a time; the pointer is not tested.
 * @safety MT-Safe race:buffer, AS-Safe */
TIRN_API uint16_t kesa_crc16_soft(uint16_t crc, const void* buffer, uint64_t length);

/*
 * The routines at the level of instructions. The forms without copy ignore `destination`; those with copy store each
 * word of `source` at the same offset there, and the two must not overlap. No pointer is tested.
 */

/* A running CRC-32C. On AArch64 one chain of the CRC instruction; on x86-64 the fastest that this processor has.
 * @safety MT-Safe race:source, AS-Safe */
TIRN_API uint32_t AsmCrc32c(void* destination, uint32_t length, uint32_t crc, const void* source);

/* A running CRC-32C by three chains of the CRC instruction side by side. A length of 2^31 or more is beyond its range:
 * nothing is read, and `crc` comes back.
 * @safety MT-Safe race:source, AS-Safe */
TIRN_API uint32_t Asm3Crc32c(void* destination, uint32_t length, uint32_t crc, const void* source);

/* AsmCrc32c with copy.
 * @safety MT-Safe race:source race:destination, AS-Safe */
TIRN_API uint32_t AsmCrc32cWithCpy(void* destination, uint32_t length, uint32_t crc, const void* source);

/* Asm3Crc32c with copy; beyond its range nothing is read or written.
 * @safety MT-Safe race:source race:destination, AS-Safe */
TIRN_API uint32_t Asm3Crc32cWithCpy(void* destination, uint32_t length, uint32_t crc, const void* source);

/* The CRC-16/T10-DIF of a buffer by carry-less multiplication.
 * @safety MT-Safe race:buffer, AS-Safe */
TIRN_API uint16_t crc16_t10dif(uint16_t crc, const void* buffer, uint64_t length);

TIRN_EXTERN_C_END

#endif
