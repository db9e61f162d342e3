/*
 * Enhanced semaphore: counts units, and serves waiting threads in order of arrival.
 *
 * A unit that is given back while threads wait goes to the thread that has waited longest, never to a newcomer.
 * Waiters sleep in the kernel and are woken by SIGWAKEUP (tirn/sched.h), which they must not block. Nothing is
 * allocated. A semaphore needs no tear-down, but its memory must stay while a thread waits. It serves the threads of
 * one process. Waiting may change errno. A cancellation of a waiting thread stays pending until the wait has ended.
 */
#ifndef TIRN_SEMAPHORE_H
#define TIRN_SEMAPHORE_H

#include "tirn/base.h"
#include "tirn/lock.h"

TIRN_EXTERN_C_BEGIN

struct kesa_sem_enhance {
  struct kesa_spinlock lock;
  int32_t count;                 /* free units; never below 0 */
  struct kesa_list_head waiters; /* the oldest at the front */
};

/* Makes the record a semaphore with `count` free units. It holds at most INT32_MAX; units beyond that are lost.
 * @returns 0.
 * @safety MT-Unsafe race:sem, AS-Safe */
TIRN_API int kesa_sem_enhance_init(struct kesa_sem_enhance* sem, uint32_t count);

/* Takes a unit, and waits for one without limit. If the kernel side refuses the wait, it returns without a unit.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API void kesa_sem_enhance_down(struct kesa_sem_enhance* sem);

/* Takes a unit, and waits for one until a signal arrives. A late signal of an earlier unit ends the wait too, here
 * and in kesa_sem_enhance_down_timeout.
 * @returns 0; -EINTR if a signal ended the wait; -ENODATA if the kernel side refuses the wait.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API int kesa_sem_enhance_down_interruptible(struct kesa_sem_enhance* sem);

/* Takes a unit, and waits for at most `timeout` milliseconds, counted in whole jiffies of 4 ms. It does not wait if
 * `timeout` is below 4. A unit that comes together with the end of the time or a signal is taken.
 * @returns 0; -ENODATA when the time is up, or if the kernel side refuses the wait; -EINTR if a signal ended the
 * wait.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API int kesa_sem_enhance_down_timeout(struct kesa_sem_enhance* sem, int64_t timeout);

/* Gives a unit, to the oldest waiter if there is one. While the kernel's queue of signals is full, it tries to wake
 * the waiter again every microsecond.
 * @returns 0, or the error's number if the waiter could not be woken. The unit is that waiter's all the same; it may
 * have found it by itself and ended (ESRCH).
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API int kesa_sem_enhance_up(struct kesa_sem_enhance* sem);

/* Does nothing.
 * @returns 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_sem_enhance_destroy(struct kesa_sem_enhance* sem);

/* Writes one log line for the semaphore and one for each waiter.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API void kesa_sem_enhance_show(struct kesa_sem_enhance* sem);

TIRN_EXTERN_C_END

#endif
