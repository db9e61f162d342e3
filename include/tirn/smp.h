/* The number of processors of the machine. Each count is taken once. */
#ifndef TIRN_SMP_H
#define TIRN_SMP_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* The numbers of CPUs online and configured; 0 until they are known. */
TIRN_API extern uint32_t g_onlineCpuNum;
TIRN_API extern uint32_t g_configCpuNum;

/* Fills both counts, once. While one of them is 0, a later call tries again.
 * @returns an unspecified value; ignore it.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int globalCpuNum_init(void);

/* Counts the CPUs online. The first count that is not 0 is kept.
 * @returns the count, or 0 if the system does not report it.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API uint32_t num_online_cpus(void);

/* Counts the configured CPUs. The first count is kept, also that of globalCpuNum_init.
 * @returns the count; 0 if no count is kept and the system reports none, or more than 256.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API uint32_t num_config_cpus(void);

TIRN_EXTERN_C_END

#endif
