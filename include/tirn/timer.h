/*
 * One-shot timers. Those of the wheel count in milliseconds and reach 60 days ahead on its levels; later ones are
 * filed anew until they come into range. High-resolution timers count in nanoseconds, up to 1 ms. Each kind has a
 * thread of its own that runs the callbacks one after the other, without a lock: a slow callback delays the others.
 * The last group of functions checks its arguments and calls the system's POSIX timers.
 *
 *   static void on_time(uint64_t data) { ... }
 *
 *   struct kesa_timer timer;
 *   kesa_timer_init(&timer);
 *   kesa_timer_set(&timer, 100, data, on_time);
 *   kesa_timer_add(&timer);
 *
 * A timer is the caller's memory. It must stay valid while it is pending, and until kesa_timer_delete_sync returns if
 * its callback may be running. A callback may add, modify or delete its own timer, and free it: nothing is read from
 * it after the call. A callback must not end its thread, and the child of a fork in it must not return from it.
 *
 * kesa_Init starts the wheel, the first high-resolution timer the other thread; both run until the process ends. In a
 * forked child neither runs, and the timers of the parent do not fire: kesa_timer_module_init, and the first
 * kesa_hr_timer_add, start them anew, with no timer pending.
 */
#ifndef TIRN_TIMER_H
#define TIRN_TIMER_H

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include "tirn/base.h"
#include "tirn/lock.h"
#include "tirn/rbtree.h"

TIRN_EXTERN_C_BEGIN

#define KESA_TIMER_HIGH_RESOLUTION 1u /* bit of kesa_timer.flags */
#define KESA_HR_TIMER_PENDING 17u     /* kesa_timer.isp while a high-resolution timer is pending, else 0 */
#define KESA_HR_TIMER_MAX 1000000u    /* nanoseconds that a high-resolution timer may run */
#define KESA_TIMER_REACH 5184000000u  /* milliseconds that the wheel's levels cover: 60 days */
#define KESA_TIMER_SLOW_CALLBACK 300u /* a callback that takes more milliseconds is logged */

typedef void (*kesa_timer_fn)(uint64_t data);

struct kesa_timer {
  struct kesa_rb_node rbNode; /* this and the next two: high-resolution timers only */
  int64_t hrExpireSec;        /* absolute expiry on CLOCK_MONOTONIC */
  int64_t hrExpireNsec;
  struct kesa_list_head link; /* next: NULL while the timer is not on the wheel; prev: poisoned then */
  uint64_t expires;           /* absolute expiry in milliseconds of kesa_time_getmillisec */
  uint64_t timeout;           /* milliseconds; nanoseconds for a high-resolution timer */
  uint64_t data;              /* for func */
  kesa_timer_fn func;
  uint8_t isp;
  uint8_t flags;
  const char* funcName; /* this and the next two: where the timer was set, for log lines */
  const char* file;
  int32_t line;
};

/* The wheel. A slot is a list of timers, the oldest first. Each level has one slot for each value of the digit that
 * it stands for: milliseconds, seconds, minutes, hours, and units of 60 hours. */
struct kesa_timer_root {
  struct kesa_spinlock lock; /* guards what follows; held before the mutex is taken */
  pthread_mutex_t mutex;     /* guards the thread's sleep, and nextWake against it */
  pthread_cond_t cond;       /* wakes the thread early */
  uint64_t wheelTime;        /* the next millisecond that the wheel has to process */
  uint64_t pendingCount;     /* timers on the wheel */
  uint64_t nextWake;         /* the millisecond at which the thread wants to wake */
  pthread_t threadId;
  struct kesa_timer* runningTimer; /* the timer whose callback is running, or NULL */
  struct kesa_list_head tv1[1000];
  struct kesa_list_head tv2[60];
  struct kesa_list_head tv3[60];
  struct kesa_list_head tv4[60];
  struct kesa_list_head tv5[24];
};

/*
 * Starts the wheel and its thread, unless it runs already. Timers that kesa_timer_modify has put on the wheel before
 * are taken off.
 * @returns 0, or -1 if the mutex, the condition variable or the thread cannot be made, which is logged.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API int kesa_timer_module_init(void);

/* Finds the wheel. It may only be read, with its lock held. @returns its address. @safety MT-Safe, AS-Safe */
TIRN_API struct kesa_timer_root* kesa_get_timer_root(void);

/* Zeroes the record. @returns 0, or -1 for NULL, which is logged. @safety MT-Safe race:timer, AS-Safe */
TIRN_API int kesa_timer_init(struct kesa_timer* timer);

/*
 * Zeroes the record and stores the six values. kesa_timer_set fills in the last three. `file` and `funcName` are not
 * copied.
 * @returns 0, or -1 for a NULL timer or func and for a timer that is on the wheel; both are logged.
 * @safety MT-Safe race:timer, AS-Safe
 */
TIRN_API int kesa_timer_set_raw(struct kesa_timer* timer, uint64_t timeout, uint64_t data, kesa_timer_fn func,
                                const char* funcName, const char* file, int32_t line);

#define kesa_timer_set(timer, timeout, data, func) \
  kesa_timer_set_raw((timer), (timeout), (data), (func), __func__, __FILE__, __LINE__)

/*
 * Puts a timer on the wheel that is not pending; it fires once, `timer->timeout` milliseconds from now.
 * @returns 0, or -1 if the wheel does not run, for a NULL timer or func, a timer that is pending or a timeout of 0;
 * all are logged.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API int kesa_timer_add(struct kesa_timer* timer);

/*
 * Starts a high-resolution timer, which fires once, `timer->timeout` nanoseconds from now. The functions below then
 * treat the record as a high-resolution timer, until kesa_timer_add or kesa_timer_set_raw.
 * @returns the result of kesa_hr_timer_add, or -1 for a NULL timer or func, which is logged.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API int kesa_timer_add_ns(struct kesa_timer* timer);

/*
 * Lets the timer fire once, `timeout` milliseconds from now, whether it is pending or not. `timeout` times 1000 wraps
 * at 2^64. Does not test whether the wheel runs. For a high-resolution timer it calls kesa_hr_timer_modify.
 * @returns 0, or -1 for a NULL timer or func and a timeout of 0, which is logged.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API int kesa_timer_modify(struct kesa_timer* timer, uint64_t timeout);

/*
 * Takes the timer off the wheel if it is pending. Its callback may still be running. For a high-resolution timer it
 * calls kesa_hr_timer_delete.
 * @returns 0, or -1 for NULL or if the wheel does not run, which is logged.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API int kesa_timer_delete(struct kesa_timer* timer);

/*
 * Does the same as kesa_timer_delete, after waiting for the timer's callback to return. It never returns if it is
 * called from that callback. For a high-resolution timer it calls kesa_hr_timer_delete_sync.
 * @returns as kesa_timer_delete.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API int kesa_timer_delete_sync(struct kesa_timer* timer);

/* Calls kesa_timer_delete_sync. @returns its result. @safety MT-Safe, AS-Unsafe lock */
TIRN_API int kesa_timer_destroy(struct kesa_timer* timer);

/*
 * Tests whether the timer is pending, without a lock.
 * @returns 1 if it is, 0 if not, and 0 for NULL, which is logged.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_timer_is_pending(struct kesa_timer* timer);

/*
 * Logs a timer, twice: to module 0 without a level test, and to this library's module. `node` is the address of the
 * timer's link. Of a slot's head, what follows it in the wheel is logged.
 * @safety MT-Safe race:node, AS-Safe
 */
TIRN_API void kesa_timer_show(const struct kesa_list_head* node);

/* High-resolution timers. */

/*
 * Does the work of kesa_timer_add_ns, which also marks the record for the functions above. The first call starts the
 * thread; if that fails, it is final.
 * @returns 0, or -1 if the module could not be started, for a timer that is pending, for a timeout above
 * KESA_HR_TIMER_MAX, and if the clock cannot be read, which is logged; -1 for NULL.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API int kesa_hr_timer_add(struct kesa_timer* timer);

/*
 * Lets the timer fire once, `delay` nanoseconds from now, whether it is pending or not. If the clock cannot be read,
 * the timer is not pending afterwards.
 * @returns 0, or -1 if the module is not up, for a delay above KESA_HR_TIMER_MAX, and if the clock cannot be read,
 * which is logged; -1 for NULL.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API int kesa_hr_timer_modify(struct kesa_timer* timer, uint64_t delay);

/*
 * Stops the timer if it is pending. Its callback may still be running. NULL is no error.
 * @returns 0, or -1 if the module is not up, which is logged.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API int kesa_hr_timer_delete(struct kesa_timer* timer);

/*
 * Does the same as kesa_hr_timer_delete, after waiting for the timer's callback to return. It never returns if it is
 * called from that callback.
 * @returns as kesa_hr_timer_delete.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API int kesa_hr_timer_delete_sync(struct kesa_timer* timer);

/*
 * Tests whether the timer is pending, without a lock.
 * @returns 1 if it is, 0 if not and for NULL.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_hr_timer_is_pending(struct kesa_timer* timer);

/*
 * A debug command: logs the pending high-resolution timers if `argc` is 3 and argv[2] begins with "list". It sleeps
 * for a second after every 50 of them, and no timer fires meanwhile.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API void kesa_hr_timer_diagnose_func(int32_t argc, char** argv);

/* POSIX timers. In strict C the system's headers leave these names out. */

typedef void* timer_t;
struct sigevent;
struct itimerspec;

/*
 * Calls timer_create.
 * @returns its result, or -EINVAL for NULL and for a clock above 3, which is logged.
 * @safety MT-Safe, AS-Unsafe heap
 */
TIRN_API int kesa_timer_create_posix(uint32_t clock, struct sigevent* event, timer_t* timer_out);

/* Calls timer_delete. @returns its result. @safety MT-Safe race:timer, AS-Safe */
TIRN_API int kesa_timer_delete_posix(timer_t timer);

/*
 * Calls timer_settime. `former` may be NULL.
 * @returns its result, or -EINVAL for a NULL `value`, which is logged.
 * @safety MT-Safe race:timer, AS-Safe
 */
TIRN_API int kesa_timer_settime_posix(timer_t timer, int flags, const struct itimerspec* value,
                                      struct itimerspec* former);

/*
 * Calls timer_gettime.
 * @returns its result, or -EINVAL for a NULL `value`, which is logged.
 * @safety MT-Safe race:timer, AS-Safe
 */
TIRN_API int kesa_timer_gettime_posix(timer_t timer, struct itimerspec* value);

/* Calls timer_getoverrun. @returns its result. @safety MT-Safe race:timer, AS-Safe */
TIRN_API int kesa_timer_getoverrun_posix(timer_t timer);

TIRN_EXTERN_C_END

#endif
