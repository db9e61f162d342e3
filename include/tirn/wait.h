/*
 * Wait queues in kernel style: threads sleep until a condition of their own holds, and whoever changes it wakes all.
 *
 *   struct kesa_wait_queue_entry entry;
 *   kesa_wait_queue_entry_init(&entry, kesa_thread_get_knl_tid());
 *   for (;;) {
 *     prepare_to_wait(&queue, &entry);   // from here on no wake-up is lost; again after each, or it would not sleep
 *     before_wait();
 *     if (condition) break;
 *     sched_wait_timeout(&entry, 250);
 *   }
 *   finish_wait(&queue, &entry);
 *
 * Waiters are woken by SIGWAKEUP (tirn/sched.h), which they must not block; they are threads of one process. In a forked
 * child take the waiter's id from gettid: kesa_thread_get_knl_tid (tirn/thread.h) may still tell the parent's.
 */
#ifndef TIRN_WAIT_H
#define TIRN_WAIT_H

#include "tirn/base.h"
#include "tirn/lock.h"

TIRN_EXTERN_C_BEGIN

/* It must stay until __wake_up has returned, also when the last waiter is through before. */
struct kesa_wait_queue_head {
  struct kesa_spinlock lock;
  struct kesa_list_head list; /* the newest entry at the front */
};

/* The waiting thread's own; it may go when finish_wait has returned. */
struct kesa_wait_queue_entry {
  uint32_t tid;   /* the kernel's id of the thread */
  uint32_t state; /* 1 while waiting, 0 after a wake-up or finish_wait */
  void* reserved; /* not used by the library */
  struct kesa_list_head link;
};

/* Makes the record an empty queue.
 * @safety MT-Unsafe race:head, AS-Safe */
static inline void kesa_wait_queue_head_init(struct kesa_wait_queue_head* head) {
  kesa_spinlock_init(&head->lock);
  head->list.next = head->list.prev = &head->list;
}

/* Makes the record an entry that is on no queue; `tid` is the waiter's, see kesa_thread_get_knl_tid.
 * @safety MT-Unsafe race:entry, AS-Safe */
static inline void kesa_wait_queue_entry_init(struct kesa_wait_queue_entry* entry, uint32_t tid) {
  entry->tid = tid;
  entry->state = 0;
  entry->reserved = NULL;
  entry->link.next = entry->link.prev = &entry->link;
}

/* Sets the entry waiting, and enters it at the front of the queue if it is on none. Always 0. From here to finish_wait
 * the queue points at the entry: a thread that can be cancelled holds that off. The two waits are no cancellation points.
 * @safety MT-Safe race:entry, AS-Unsafe lock */
TIRN_API int prepare_to_wait(struct kesa_wait_queue_head* head, struct kesa_wait_queue_entry* entry);

/* Nothing: the place between prepare_to_wait and the sleep.
 * @safety MT-Safe, AS-Safe */
TIRN_API void before_wait(void);

/* Sleeps until the entry is woken, for a second at most: 0 when the time is up, -1 where a wake-up or another signal
 * ended it.
 * @safety MT-Safe, AS-Unsafe init */
TIRN_API int sched_wait(struct kesa_wait_queue_entry* entry);

/* The same for `timeout` jiffies of 4 ms: the jiffies left, or 0 when the time is up.
 * @safety MT-Safe, AS-Unsafe init */
TIRN_API int64_t sched_wait_timeout(struct kesa_wait_queue_entry* entry, int64_t timeout);

/* Takes the entry off the queue, where it has not been woken. It belongs to the caller alone from then on.
 * @safety MT-Safe race:entry, AS-Unsafe lock */
TIRN_API void finish_wait(struct kesa_wait_queue_head* head, struct kesa_wait_queue_entry* entry);

/* Wakes all entries of the queue, the newest first, and empties it. Signals are sent under the queue's lock, and one
 * that cannot be sent is not sent again: waiters sleep with a timeout.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API void __wake_up(struct kesa_wait_queue_head* head);

/* Nothing. Always 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int autoremove_wake_function(void);

TIRN_EXTERN_C_END

#endif
