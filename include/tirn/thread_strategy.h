/*
 * Strategies of threads: the priority and the CPUs of a kind of threads, which a process sets up by name.
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

/* What a strategy is set up from. */
typedef struct KesaThreadStrategyCfg {
  uint32_t prio;       /* the nice value, as an int */
  const char* cpumask; /* see kesa_cpum_parse_cpumask */
} KesaThreadStrategyCfg;

/*
 * Strategies. None is valid until the process sets it up, which it does at its start, before its threads want them:
 * until then they change nothing. Threads keep what they took when a strategy is set up again.
 */

/* Sets a strategy up. 0; -1 for an id that there is not and a NULL `cfg`, and for CPUs that cannot be read: the strategy
 * is not valid then.
 * @safety MT-Safe race:strategy, AS-Unsafe heap */
TIRN_API int kesa_initThreadStrategy(uint32_t id, const KesaThreadStrategyCfg* cfg);

/* Gives the calling thread a nice value. 0; -1 where the system refuses.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_setCurThreadPrio(int prio);

/* The same by level: 0 to 4 are the nice values -20, -15, 0, 10 and 15. 0, also for a higher level, which does
 * nothing; -1 where the system refuses.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_thrd_setprio(uint32_t level);

/* Binds the calling thread to CPUs given as a text, see kesa_cpum_parse_cpumask. 0, or -1.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_setCurThreadBind(const char* mask);

/* Gives the calling thread a strategy: priority first, then CPUs; an empty set binds nothing. One that is not valid
 * stands for the default one, but the id that was asked for is noted. 0, also where neither is valid, and for an id
 * that there is not; -1 where the priority was refused, which leaves the CPUs alone, or the CPUs were.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_setCurThreadStrategy(uint32_t id);

/* Prints the strategies, one to a line, with the first 256 CPUs. Always 0.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_showThreadStrategyDbg(kesa_print_fn print);

TIRN_EXTERN_C_END

#endif
