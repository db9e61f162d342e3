/*
 * Two clocks without a system call: jiffies of 4 milliseconds from the page of the jiffies device, and the
 * processor's free-running counter. Without the device jiffies come from the counter, with another origin.
 */
#ifndef TIRN_JIFFIES_H
#define TIRN_JIFFIES_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

#define KESA_JIFFIES_PER_SECOND 250u
#define KESA_NANOSECONDS_PER_JIFFY 4000000u

/* The mapped jiffies device. The descriptors are closed; their numbers stay for display. */
struct jiffies_uio {
  int32_t dev_fd;
  int32_t addr_fd;
  int32_t size_fd;
  int32_t offset_fd;
  uint64_t addr;           /* physical address, recorded and not used */
  uint64_t size;           /* bytes mapped */
  const uint64_t* jiffies; /* the counter; NULL while no device is mapped */
};

TIRN_API extern struct jiffies_uio g_jiffies_uio;

/* The processor's nominal clock in gigahertz, for callers: 0 at load, 2.6 from kesa_gettime_init on, and what
 * kesa_get_tsc_freq or kesa_estimate_tsc_freq find. */
TIRN_API extern double currCpuGHz;

/* Sets up device and clock, once; the clock serves where the device is missing. 0, or the clock's error.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int jiffies_Init(void);

/* Does nothing: the mapping lives as long as the process.
 * @safety MT-Safe, AS-Safe */
TIRN_API void jiffies_fini(void);

/* Finds and maps the jiffies device, once it is there. 0, or -1; a later call tries again.
 * @safety MT-Safe race:g_jiffies_uio, AS-Unsafe lock heap */
TIRN_API int jiffies_usr_main(void);

/* The device's record.
 * @safety MT-Safe, AS-Safe */
TIRN_API struct jiffies_uio* jiffies_uio_get(void);

/*
 * Finds, maps and records the device. 0, or -1: no device, a file of it that cannot be opened, or a mapping that
 * fails or has no room for the counter at its offset (a multiple of 8).
 * @safety MT-Unsafe race:g_jiffies_uio, AS-Unsafe heap
 */
TIRN_API int jiffies_uio_adp_open(void);

/* Closes the descriptor number that the record shows, whosever it is by now (0 before the device was looked for); the
 * mapping stays. The result of close.
 * @safety MT-Unsafe race:g_jiffies_uio, AS-Safe */
TIRN_API int jiffies_uio_adp_close(void);

/* Jiffies: a flag test and one load. The first call of a process may take mutexes.
 * @safety MT-Safe, AS-Safe (after the first call) */
TIRN_API uint64_t kesa_get_jiffies(void);

/*
 * A reading of the counter, in its ticks, that was not disturbed: of pairs of readings the first whose two lie
 * within 8 ticks, or the last of 200.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API uint64_t kesa_rte_get_timer_cycles(void);

/* Nanoseconds since the counter's origin: the counter times the whole nanoseconds per tick, without a guard against
 * overflow. 0 before kesa_gettime_init.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint64_t kesa_time_getnanosec(void);

/* kesa_time_getnanosec in milliseconds.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint64_t kesa_time_getmillisec(void);

/* Ticks of the counter in nanoseconds. 0 before kesa_gettime_init.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint64_t kesa_time_cycles2ns(uint64_t cycles);

/* Sets the clock's scale, once. 0, or the error of kesa_CheckCurrCpu.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API int kesa_gettime_init(void);

/*
 * Reads the counter's frequency and sets the whole nanoseconds per tick; currCpuGHz becomes 2.6. A frequency that
 * does not divide 10^9 gives a truncated scale, one above 1 GHz gives 0. Always 0.
 * @safety MT-Unsafe race:currCpuGHz, AS-Safe
 */
TIRN_API int kesa_CheckCurrCpu(void);

/*
 * Sets currCpuGHz from the model name of /proc/cpuinfo, or by kesa_estimate_tsc_freq where it tells none. 0; all
 * ones where the processor has no constant_tsc flag or a command cannot be run. The commands are no cancellation
 * points, that measurement is one.
 * @safety MT-Unsafe race:currCpuGHz, AS-Unsafe lock heap
 */
TIRN_API int kesa_get_tsc_freq(void);

/* Measures the counter over 50 ms and sets currCpuGHz to its rate in steps of 10 MHz. A cancellation point, which
 * leaves currCpuGHz as it was.
 * @safety MT-Unsafe race:currCpuGHz, AS-Unsafe heap */
TIRN_API void kesa_estimate_tsc_freq(void);

TIRN_EXTERN_C_END

#endif
