/*
 * Strategies of threads. A strategy is the priority and the CPUs of one kind of threads.
 */
#ifndef TIRN_THREAD_STRATEGY_H
#define TIRN_THREAD_STRATEGY_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

enum kesa_thread_strategy {
  KESA_STRATEGY_DEFAULT = 0,
  KESA_STRATEGY_CRITICAL = 1,
  KESA_STRATEGY_CTRL = 2,
  KESA_STRATEGY_MANAGE = 3,
  KESA_STRATEGY_IO = 4,
  KESA_STRATEGY_BACKGROUND = 5,
  KESA_STRATEGY_COUNT = 6,
};

/* The settings of a strategy. */
typedef struct KesaThreadStrategyCfg {
  uint32_t prio;       /* the nice value, as an int */
  const char* cpumask; /* see kesa_cpum_parse_cpumask */
} KesaThreadStrategyCfg;

/*
 * No strategy is valid until the process sets it up, and until then it changes nothing. A process therefore sets its
 * strategies up at its start, before its threads take them. When a strategy is set up again, threads keep the old
 * settings.
 */

/* Sets a strategy up.
 * @returns 0; -1 for an unknown id, a NULL `cfg`, or CPUs that cannot be parsed, which leave the strategy not valid.
 * @safety MT-Safe race:strategy, AS-Unsafe heap */
TIRN_API int kesa_initThreadStrategy(uint32_t id, const KesaThreadStrategyCfg* cfg);

/* Gives the calling thread a nice value.
 * @returns 0, or -1 if the system refuses it.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_setCurThreadPrio(int prio);

/* Gives the calling thread a nice value by level: 0 to 4 are -20, -15, 0, 10 and 15. A higher level does nothing.
 * @returns 0, or -1 if the system refuses the nice value.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_thrd_setprio(uint32_t level);

/* Binds the calling thread to CPUs given as a text, see kesa_cpum_parse_cpumask.
 * @returns 0, or -1.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_setCurThreadBind(const char* mask);

/* Gives the calling thread a strategy: the priority first, then the CPUs; an empty set binds nothing. If the strategy
 * is not valid, the thread takes the default strategy, but its record notes the id that was asked for.
 * @returns 0, also for an unknown id and if the default strategy is not valid either; -1 if the system refuses the
 * priority, which leaves the CPUs as they were, or the CPUs.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_setCurThreadStrategy(uint32_t id);

/* Prints each strategy on a text line, with the first 256 CPUs.
 * @returns 0.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_showThreadStrategyDbg(kesa_print_fn print);

TIRN_EXTERN_C_END

#endif
