/*
 * Two clocks without a system call: jiffies of 4 milliseconds from the page of the jiffies device, and the
 * processor's free-running counter. Without the device, jiffies come from the counter and have another origin.
 */
#ifndef TIRN_JIFFIES_H
#define TIRN_JIFFIES_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

#define KESA_JIFFIES_PER_SECOND 250u
#define KESA_NANOSECONDS_PER_JIFFY 4000000u

/* The mapped jiffies device. The descriptors are closed; their numbers are kept for display. */
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

/* The processor's nominal clock rate in gigahertz, for callers: 0 at load, 2.6 after kesa_gettime_init, and then what
 * kesa_get_tsc_freq or kesa_estimate_tsc_freq finds. */
TIRN_API extern double currCpuGHz;

/* Sets up the device and the clock, once. If the device is missing, the clock serves alone.
 * @returns 0, or the clock's error.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int jiffies_Init(void);

/* Does nothing: the mapping lives as long as the process.
 * @safety MT-Safe, AS-Safe */
TIRN_API void jiffies_fini(void);

/* Finds and maps the jiffies device, once. After a failure a later call tries again.
 * @returns 0, or -1 if jiffies_uio_adp_open fails.
 * @safety MT-Safe race:g_jiffies_uio, AS-Unsafe lock heap */
TIRN_API int jiffies_usr_main(void);

/* Finds the device's record.
 * @returns a pointer to g_jiffies_uio.
 * @safety MT-Safe, AS-Safe */
TIRN_API struct jiffies_uio* jiffies_uio_get(void);

/*
 * Finds, maps and records the device.
 * @returns 0; -1 if there is no device, if one of its files cannot be opened, or if the mapping fails or does not
 * hold the counter at its offset, which must be a multiple of 8.
 * @safety MT-Unsafe race:g_jiffies_uio, AS-Unsafe heap
 */
TIRN_API int jiffies_uio_adp_open(void);

/* Calls close for the descriptor number in the record, whatever it refers to by now. The number is 0 until a device
 * has been opened. The mapping stays.
 * @returns its result.
 * @safety MT-Unsafe race:g_jiffies_uio, AS-Safe */
TIRN_API int jiffies_uio_adp_close(void);

/* Reads the jiffies, by a flag test and one load. The first call of a process may take mutexes.
 * @returns the jiffies.
 * @safety MT-Safe, AS-Safe (after the first call) */
TIRN_API uint64_t kesa_get_jiffies(void);

/*
 * Reads the counter in pairs until the two readings of a pair lie within 8 ticks, which shows that the reading was
 * not disturbed, or until the 200th pair.
 * @returns the second reading of the last pair, in ticks of the counter.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API uint64_t kesa_rte_get_timer_cycles(void);

/* Reads the counter and multiplies it by the whole nanoseconds per tick, without a guard against overflow.
 * @returns nanoseconds since the counter's origin; 0 before kesa_gettime_init.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint64_t kesa_time_getnanosec(void);

/* Calls kesa_time_getnanosec.
 * @returns its result in milliseconds.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint64_t kesa_time_getmillisec(void);

/* Converts ticks of the counter to nanoseconds.
 * @returns the nanoseconds; 0 before kesa_gettime_init.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint64_t kesa_time_cycles2ns(uint64_t cycles);

/* Sets the clock's scale by kesa_CheckCurrCpu, once.
 * @returns 0, or the error of kesa_CheckCurrCpu.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API int kesa_gettime_init(void);

/*
 * Reads the counter's frequency and sets the whole nanoseconds per tick; currCpuGHz becomes 2.6. A frequency that
 * does not divide 10^9 gives a truncated scale, one above 1 GHz a scale of 0.
 * @returns 0.
 * @safety MT-Unsafe race:currCpuGHz, AS-Safe
 */
TIRN_API int kesa_CheckCurrCpu(void);

/*
 * Sets currCpuGHz from the model name in /proc/cpuinfo, or by kesa_estimate_tsc_freq if that has no frequency. The
 * commands that read the file are no cancellation points; that measurement is one.
 * @returns 0; -1 if the processor has no constant_tsc flag or a command cannot be run.
 * @safety MT-Unsafe race:currCpuGHz, AS-Unsafe lock heap
 */
TIRN_API int kesa_get_tsc_freq(void);

/* Measures the counter over 50 ms and sets currCpuGHz to its rate in steps of 10 MHz. This is a cancellation point; a
 * cancelled call leaves currCpuGHz as it was.
 * @safety MT-Unsafe race:currCpuGHz, AS-Unsafe heap */
TIRN_API void kesa_estimate_tsc_freq(void);

TIRN_EXTERN_C_END

#endif
