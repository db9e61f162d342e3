/*
 * Scheduled work: a pool of worker threads that run queued work records, oldest first.
 *
 *   static int flush(struct kesa_sched_work* work) { ... work->data ... }
 *   kesa_sched_init_work(&work, flush, data);
 *   kesa_set_sched_work_timeout(&work, 30);    // optional
 *   kesa_sched_add_work(&work);
 *
 * The pool sizes itself. It keeps a few idle threads beside those that run work, ends idle threads beyond a maximum,
 * and has at most KESA_SCHED_WORK_THREADS threads; work that comes when all are busy waits in the queue. Items
 * SCHED_THREAD_FREE_NUM_MIN and SCHED_THREAD_FREE_NUM_MAX of the configuration section "KESA" can lower the two
 * bounds of idle threads, 4 and 8; a minimum of 0 leaves the pool without threads.
 *
 * Work that hangs is not ended, only reported: see kesa_heal_check_callback.
 *
 * In a forked child there are no workers, and the queue is empty: the records that were queued can be added again.
 * The pool starts anew at the child's first kesa_sched_add_work. A handler that forks must not return in the child,
 * because its thread then ends, and with it the process.
 */
#ifndef TIRN_SCHEDWORK_H
#define TIRN_SCHEDWORK_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

#define KESA_SCHED_WORK_THREADS 64u
#define KESA_SCHED_WORK_TIMEOUT_MIN 15u /* seconds */

struct kesa_sched_work;

/* The work. It runs on a worker thread, which holds nothing meanwhile: it may free its record, add it again, or end
 * the thread by pthread_exit. Its result is ignored. */
typedef int (*kesa_sched_work_fn)(struct kesa_sched_work* work);

/* Owned by the caller, who keeps it alive while it is queued. The library does not read it once the handler runs. */
struct kesa_sched_work {
  int32_t pid;                /* the process that initialised it; printed in reports */
  uint32_t timeout;           /* the time limit of a run in seconds; 0: none */
  struct kesa_list_head link; /* the two poison values while the record is not queued */
  void* data;                 /* the caller's, for the handler */
  kesa_sched_work_fn handler;
};

/* Initialises the record: not queued, no time limit. The record must not be queued, or the rest of the queue is lost.
 * @safety MT-Unsafe race:work, AS-Safe */
TIRN_API void kesa_sched_init_work(struct kesa_sched_work* work, kesa_sched_work_fn handler, void* data);

/* Sets the time limit of a run.
 * @returns 0; -1 for a NULL record or less than KESA_SCHED_WORK_TIMEOUT_MIN seconds.
 * @safety MT-Unsafe race:work, AS-Unsafe heap */
TIRN_API int kesa_set_sched_work_timeout(struct kesa_sched_work* work, uint32_t seconds);

/*
 * Queues the record. The first call starts the pool, also without kesa_Init. During sched_work_destroy the record is
 * queued too, which is logged as an error; it then waits until a later call starts the pool again. Later calls take
 * one spinlock and raise one semaphore, and allocate nothing.
 * @returns the result of kesa_sem_enhance_up, with the record queued; -1 for NULL, for a record that is queued
 * already, and if the pool cannot be started.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API int kesa_sched_add_work(struct kesa_sched_work* work);

/* Takes the record off the queue. Does not wait for its handler.
 * @returns 0; -ENOANO if it is not queued, also while its handler runs; -1 for NULL and if the pool is not started.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_sched_delete_work(struct kesa_sched_work* work);

/* The pool. Programs need none of these calls: kesa_Init, kesa_sched_add_work, kesa_destory and the workers make
 * them. */

/* Starts the first threads, unless they are started.
 * @returns 0; -1 if they cannot be started, and a later call tries again.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int sched_work_init(void);

/*
 * Ends the idle threads and drops the queue: the records in it are not run, and can be added again. Takes 10 ms, and
 * 10 ms more for each idle thread. A thread that runs work ends when its handler returns; its worker slot stays
 * claimed. A later kesa_sched_add_work starts the pool again.
 * @returns 0.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API int sched_work_destroy(void);

/* Reads the two bounds of idle threads from the configuration. If the maximum is below the minimum, the bounds in
 * force stay.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API void sched_work_thread_num_set(void);

/* Starts threads until as many are idle as the minimum says, or the pool is as large as it may be.
 * @returns 0; -1 if a thread cannot be started.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int sched_work_create_thread(void);

/* The entry of a worker. The argument is not used.
 * @returns NULL.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API void* sched_work_thread(void* argument);

/* Takes the oldest record off the queue.
 * @returns the record, or NULL if the queue is empty.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API struct kesa_sched_work* sched_work_select_task(void);

/* Calls the record's handler. If the record has a time limit, the worker slot `index` notes it meanwhile.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API void sched_work_run_task(struct kesa_sched_work* work, uint32_t index);

/* Writes a log line about the record that `node`, its link, belongs to. Addresses have no names so far, so the three
 * texts for them are empty.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API void KesaSchedWorkShow(const struct kesa_list_head* node);

/* The worker slots, KESA_SCHED_WORK_THREADS of them: which threads are watched, and since when each runs work that
 * has a time limit. */

/* Claims a free slot for the thread with this kernel id, and stores the slot's number.
 * @returns 0; -1 for a NULL `index`, and if all slots are used, which leaves `*index` as it was.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_add_sched_work_timeout_check(uint32_t tid, uint32_t* index);

/* Stores when the thread's work began, its limit in jiffies, and the process id of its record. Three zeros: it runs
 * no work with a limit. Does nothing if there is no such slot.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API void kesa_update_sched_work_timeout_info(uint32_t index, uint64_t start, uint32_t limit, uint32_t pid);

/* Frees a slot.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API void kesa_del_sched_work_timeout_check(uint32_t index);

/*
 * The heal task: what a health-check service calls periodically. Each call reports at most one thread that runs past
 * its time limit, the first in the order of the slots. The pool counts as stuck when 64 records have been running
 * for 180 seconds and no work has begun meanwhile; then the first four threads are reported.
 */

/* The service's record, as far as this library writes it. */
struct kesa_heal_check {
  uint32_t verdict; /* 1: healthy, 0: the pool is stuck */
};

struct kesa_heal_task {
  char name[32];
  void (*callback)(struct kesa_heal_check* check);
  uintptr_t words[2];  /* 0, 0 */
  uint32_t numbers[3]; /* 1, 5, 5; their meaning is the service's */
  uint64_t last;       /* 0 */
};

/* Looks for work that hangs, reports it, and stores the verdict on the pool.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API void kesa_heal_check_callback(struct kesa_heal_check* check);

/* Reports the first thread that is past its time limit: a log line, and its stack.
 * @returns 1 if there is such a thread, else 0.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_sched_work_timeout_theck(void);

/* Finds out whether the whole pool is stuck; the three minutes begin at the last call that found progress or an idle
 * thread. If it is, each call reports four threads.
 * @returns 1 if the pool is stuck, else 0.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_is_all_work_timeout(void);

/* Has the kernel side print the stack of a thread, if that thread does not run at the moment.
 * @safety MT-Safe, AS-Safe */
TIRN_API void sched_work_dump_thread_stack(uint32_t tid);

/* Fills in the heal task's record. sched_work_init does it.
 * @safety MT-Unsafe race:task, AS-Safe */
TIRN_API void kesa_init_sched_work_heal_task_info(void);

/* Stores the address of the heal task's record, and 1 as the number of tasks.
 * @returns 0, or -1 for a NULL argument.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_get_sched_work_heal_task_info(struct kesa_heal_task** heal_task, uint32_t* task_num);

TIRN_EXTERN_C_END

#endif
