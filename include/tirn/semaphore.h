/*
 * Enhanced semaphore: counts units, and serves those who wait in the order of their arrival.
 *
 * A unit that is given back while somebody waits goes to the one who has waited longest, never to a newcomer. Waiters
 * sleep in the kernel and are woken by SIGWAKEUP (tirn/sched.h), which they must not block. Nothing is allocated. A
 * semaphore needs no tear-down, but its memory must stay while somebody waits.
 */
#ifndef TIRN_SEMAPHORE_H
#define TIRN_SEMAPHORE_H

#include "tirn/base.h"
#include "tirn/lock.h"

TIRN_EXTERN_C_BEGIN

struct kesa_sem_enhance {
  struct kesa_spinlock lock;
  int32_t count;                 /* units that are free; never below 0 */
  struct kesa_list_head waiters; /* the oldest at the front */
};

/* Makes the record a semaphore with `count` free units. Always 0.
 * @safety MT-Unsafe race:sem, AS-Safe */
TIRN_API int kesa_sem_enhance_init(struct kesa_sem_enhance* sem, uint32_t count);

/* Takes a unit, and waits for one without limit. Where the kernel side refuses the wait, it returns without a unit.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API void kesa_sem_enhance_down(struct kesa_sem_enhance* sem);

/* Takes a unit. 0; -EINTR where a signal ended the wait. A wake-up of an earlier wait that arrives late is such a
 * signal too.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API int kesa_sem_enhance_down_interruptible(struct kesa_sem_enhance* sem);

/* Takes a unit within `timeout` milliseconds, counted in whole jiffies of 4 ms: below 4, and below 0, it does not wait.
 * 0; -ENODATA when the time is up; -EINTR where a signal ended the wait. A unit that comes together with either is
 * taken.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API int kesa_sem_enhance_down_timeout(struct kesa_sem_enhance* sem, int64_t timeout);

/* Gives a unit: to the oldest waiter where there is one. 0, or the error's number where the waiter could not be
 * woken: the unit is that waiter's all the same. While the kernel's queue of signals is full, it tries again every
 * microsecond.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API int kesa_sem_enhance_up(struct kesa_sem_enhance* sem);

/* Nothing. Always 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_sem_enhance_destroy(struct kesa_sem_enhance* sem);

/* Logs the semaphore, and a line for each waiter.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API void kesa_sem_enhance_show(struct kesa_sem_enhance* sem);

TIRN_EXTERN_C_END

#endif
