/* The machine's processors as masks of 256 bits, read once. */
#ifndef TIRN_CPUMASK_H
#define TIRN_CPUMASK_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* CPU numbers are below this; it is also the end value of an iteration. */
#define KESA_CPU_MAX 256u
#define KESA_CPUMASK_WORDS 4

/* CPU n is bit n % 64 of word n / 64. */
struct kesa_cpumask {
  uint64_t bits[KESA_CPUMASK_WORDS];
};

/* The CPUs that could ever be, that are online and that are present, as of cpumask_init; empty before. */
TIRN_API extern struct kesa_cpumask* cpu_possible_mask;
TIRN_API extern struct kesa_cpumask* cpu_online_mask;
TIRN_API extern struct kesa_cpumask* cpu_present_mask;

/* Reads the three masks, once. 0 (also when done already); -1 if a list could not be read: the others are read all
 * the same, and a later call reads all again.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int32_t cpumask_init(void);

/*
 * Adds the CPUs of a list file of the kernel's form ("0-3,8,10-11") to a mask; the list is cut at 255 bytes.
 * The highest range end that it names, 0 for an empty list, -1 if the file cannot be read or holds no byte.
 * `path_length` is not used.
 * @safety MT-Safe race:mask, AS-Unsafe heap
 */
TIRN_API int32_t load_cpumask(struct kesa_cpumask* mask, const char* path, uint32_t path_length);

/* Clears the first `words` 64-bit words of a mask; nothing for a count below 1. The mask must have them.
 * @safety MT-Safe race:mask, AS-Safe */
TIRN_API void init_cpumask_bit(void* mask, int32_t words);

/*
 * Sets the CPUs of one token, "n" or "n-m", in a mask of 256 bits, and gives the upper end. A number outside the
 * mask is not set; a lower end above the upper, or a token without a number, sets nothing.
 * @safety MT-Safe race:mask, AS-Unsafe heap
 */
TIRN_API int32_t kesa_set_cpumask_bit(uint8_t* mask, const char* token);

/* The lowest CPU of a mask, or 256.
 * @safety MT-Safe race:mask, AS-Safe */
TIRN_API uint32_t kesa_first_cpu(const struct kesa_cpumask* mask);

/* The lowest CPU above `n`, or 256.
 * @safety MT-Safe race:mask, AS-Safe */
TIRN_API uint32_t kesa_next_cpu(uint32_t n, const struct kesa_cpumask* mask);

/*
 * Sets the bits of a list of CPUs, items with commas between: a number, or a range such as 4-7. A range is cut at CPU
 * 1023. `mask` holds 1024 bits in 16 words; those that are set stay. 0 if at least one item was good; -1 if none was,
 * and for NULL.
 * @safety MT-Safe race:mask, AS-Unsafe heap
 */
TIRN_API int kesa_cpum_parse_cpumask(const char* text, uint64_t* mask);

TIRN_EXTERN_C_END

#endif
