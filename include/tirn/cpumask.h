/* The processors of the machine as masks of 256 bits, which are read once. */
#ifndef TIRN_CPUMASK_H
#define TIRN_CPUMASK_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* All CPU numbers are below this; it is also the end value of an iteration. */
#define KESA_CPU_MAX 256u
#define KESA_CPUMASK_WORDS 4

/* CPU n is bit n % 64 of word n / 64. */
struct kesa_cpumask {
  uint64_t bits[KESA_CPUMASK_WORDS];
};

/* The CPUs that the machine can ever have, that are online, and that are present, as read by cpumask_init. The masks
 * are empty before. */
TIRN_API extern struct kesa_cpumask* cpu_possible_mask;
TIRN_API extern struct kesa_cpumask* cpu_online_mask;
TIRN_API extern struct kesa_cpumask* cpu_present_mask;

/*
 * Reads the three masks. Does nothing if an earlier call has read them all. If a list cannot be read, the others are
 * read all the same, and a later call reads all three again.
 * @returns 0, or -1 if a list could not be read.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API int32_t cpumask_init(void);

/*
 * Adds the CPUs of a list file in the kernel's format ("0-3,8,10-11") to a mask. Only the first 255 bytes of the list
 * are used. `path_length` is not used.
 * @returns the highest upper end of a range in the list, 0 for an empty list, or -1 if the file cannot be read or has
 * no bytes.
 * @safety MT-Safe race:mask, AS-Unsafe heap
 */
TIRN_API int32_t load_cpumask(struct kesa_cpumask* mask, const char* path, uint32_t path_length);

/*
 * Clears the first `words` 64-bit words of a mask, which must have that many. Does nothing for a count below 1.
 * @safety MT-Safe race:mask, AS-Safe
 */
TIRN_API void init_cpumask_bit(void* mask, int32_t words);

/*
 * Sets the CPUs of one token, "n" or "n-m", in a mask of 256 bits. Numbers outside the mask are not set. A token
 * whose lower end is above its upper end, or that lacks a number, sets nothing.
 * @returns the upper end, or 0 if the token lacks a number.
 * @safety MT-Safe race:mask, AS-Unsafe heap
 */
TIRN_API int32_t kesa_set_cpumask_bit(uint8_t* mask, const char* token);

/*
 * Finds the lowest CPU of a mask.
 * @returns its number, or KESA_CPU_MAX if the mask is empty.
 * @safety MT-Safe race:mask, AS-Safe
 */
TIRN_API uint32_t kesa_first_cpu(const struct kesa_cpumask* mask);

/*
 * Finds the lowest CPU above `n`.
 * @returns its number, or KESA_CPU_MAX if there is none.
 * @safety MT-Safe race:mask, AS-Safe
 */
TIRN_API uint32_t kesa_next_cpu(uint32_t n, const struct kesa_cpumask* mask);

TIRN_EXTERN_C_END

#endif
