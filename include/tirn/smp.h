/* How many processors the machine has. Counts are taken once. */
#ifndef TIRN_SMP_H
#define TIRN_SMP_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* CPUs online and configured; 0 until they are known. */
TIRN_API extern uint32_t g_onlineCpuNum;
TIRN_API extern uint32_t g_configCpuNum;

/* Fills both counts, once; tried again while one of them is 0. The result means nothing.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int globalCpuNum_init(void);

/* CPUs online, kept after the first answer that is not 0; 0 where the system does not tell.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API uint32_t num_online_cpus(void);

/* CPUs configured, kept after the first answer; 0 where the system does not tell, or tells more than 256 when asked
 * here.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API uint32_t num_config_cpus(void);

TIRN_EXTERN_C_END

#endif
