/*
 * Small scheduling services: sleeps, the signal that ends them, the wait on a state word, binding to one CPU.
 */
#ifndef TIRN_SCHED_H
#define TIRN_SCHED_H

#include <signal.h>

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/*
 * The wake-up signal. Its handler does nothing: the signal exists for what it does to a thread in a system call. It is
 * reserved for this in every program that links the library, and a thread that is to be woken must not block it. What
 * needs its handler installs it; behind a kesa_sched_init that went well these functions are safe in signal handlers too
 * ("init" below).
 */
#define SIGWAKEUP (SIGRTMAX - 4)

/*
 * Sleeps. Any signal with a handler cuts them short, a late SIGWAKEUP of an earlier wait too, and the rest is not slept.
 * They are cancellation points. Always 0; errno stays as it was.
 */

/* Sleeps for so many milliseconds.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_msleep(uint32_t milliseconds);

/* Sleeps for so many microseconds.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_usleep(uint32_t microseconds);

/* Sleeps for so many times 10 milliseconds.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_10msleep(uint32_t tens_of_milliseconds);

/* Gives the processor up for a millisecond.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_schedule(void);

/* A busy wait of a little more than this, for code that may not be descheduled. It reads kesa_time_getnanosec, and
 * never ends before kesa_gettime_init. Always 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_mdelay(uint32_t milliseconds);

/* sched_yield.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_yield(void);

/* kesa_thrd_setname, with `name` as its format: a % in it is taken as a conversion. Always 0.
 * @safety MT-Safe locale, AS-Unsafe heap */
TIRN_API int kesa_set_process_name(const char* name);

/* Installs the handler of SIGWAKEUP, once: later calls have the first one's result. 0, or -1. The two functions below
 * install it too, and try again where that failed.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API int kesa_sched_init(void);

/* Sends SIGWAKEUP to a thread of this process, by the kernel's id. 0, or the error's number: ESRCH for a thread that is
 * not this process's, EINVAL for 0, EAGAIN where the kernel's queue of real-time signals is full. Where the handler
 * cannot be installed, which the log tells, the signal ends the process.
 * @safety MT-Safe, AS-Unsafe init */
TIRN_API int kesa_wake_up_process(uint32_t tid);

/* Sleeps in the kernel while the word is not 0, for `timeout` jiffies of 4 ms at most. A waker stores 0 first, with
 * release, and then calls kesa_wake_up_process. 0 when the time is up, where the kernel side fails, and at once for a
 * timeout of 0 or less; the jiffies left where a signal or the word ended the sleep. No cancellation point.
 * @safety MT-Safe, AS-Unsafe init */
TIRN_API int64_t kesa_wait_comm(uint32_t* state, int64_t timeout);

/* kesa_wait_comm for a second: 0 when the time is up, -1 where the sleep was cut short.
 * @safety MT-Safe, AS-Unsafe init */
TIRN_API int kesa_wait_interruptible(uint32_t* state);

/* Binds the calling thread to one logical CPU; smp_processor_id answers it without a system call from then on. 0; -1
 * for a CPU that is not configured, and where the system refuses.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_sched_setaffinity(uint64_t cpu);

TIRN_EXTERN_C_END

#endif
