/*
 * Small scheduling services: sleeps, the signal that ends them, the wait on a state word, and binding to one CPU.
 */
#ifndef TIRN_SCHED_H
#define TIRN_SCHED_H

#include <signal.h>

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/*
 * The wake-up signal. Its handler does nothing: the signal only interrupts a thread's system call. It is reserved for
 * this in every program that links the library, and a thread that is to be woken must not block it. The functions
 * that need the handler install it. After kesa_sched_init has succeeded they are safe in signal handlers too ("init"
 * below).
 */
#define SIGWAKEUP (SIGRTMAX - 4)

/*
 * Sleeps. Any signal with a handler ends a sleep early, a late SIGWAKEUP of an earlier wait as well; the rest is not
 * slept. The sleeps are cancellation points and leave errno as it was.
 */

/* Sleeps for a number of milliseconds.
 * @returns 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_msleep(uint32_t milliseconds);

/* Sleeps for a number of microseconds.
 * @returns 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_usleep(uint32_t microseconds);

/* Sleeps for a multiple of 10 milliseconds.
 * @returns 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_10msleep(uint32_t tens_of_milliseconds);

/* Gives the processor up for a millisecond.
 * @returns 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_schedule(void);

/* Waits busily for a little more than `milliseconds`, for code that must not give the processor up. It reads
 * kesa_time_getnanosec, so before kesa_gettime_init it never ends.
 * @returns 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_mdelay(uint32_t milliseconds);

/* Calls sched_yield.
 * @returns its result.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_yield(void);

/* Calls kesa_thrd_setname with `name` as the format, so a % in it begins a conversion.
 * @returns 0.
 * @safety MT-Safe locale, AS-Unsafe heap */
TIRN_API int kesa_set_process_name(const char* name);

/* Installs the handler of SIGWAKEUP, once: later calls return the first call's result. kesa_wake_up_process and
 * kesa_wait_comm install it as well, and try again after a failure.
 * @returns 0, or -1.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API int kesa_sched_init(void);

/* Sends SIGWAKEUP to a thread of this process, by the kernel's id. If the handler cannot be installed, which is
 * logged, the signal ends the process.
 * @returns 0, or the error's number: ESRCH if this process has no such thread, EINVAL for 0, EAGAIN if the kernel's
 * queue of real-time signals is full.
 * @safety MT-Safe, AS-Unsafe init */
TIRN_API int kesa_wake_up_process(uint32_t tid);

/* Sleeps in the kernel while the word is not 0, for at most `timeout` jiffies of 4 ms. A waker first stores 0, with
 * release, and then calls kesa_wake_up_process. The sleep is no cancellation point.
 * @returns 0 when the time is up, if the kernel side fails, and at once for a timeout of 0 or less; the jiffies left
 * if a signal or the word ended the sleep.
 * @safety MT-Safe, AS-Unsafe init */
TIRN_API int64_t kesa_wait_comm(uint32_t* state, int64_t timeout);

/* Calls kesa_wait_comm for a second.
 * @returns 0 if kesa_wait_comm returns 0, else -1: the sleep ended early.
 * @safety MT-Safe, AS-Unsafe init */
TIRN_API int kesa_wait_interruptible(uint32_t* state);

/* Binds the calling thread to one logical CPU. From then on smp_processor_id returns it without a system call.
 * @returns 0; -1 for a CPU that is not configured, and if the system refuses.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_sched_setaffinity(uint64_t cpu);

TIRN_EXTERN_C_END

#endif
