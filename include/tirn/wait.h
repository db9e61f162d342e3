/*
 * Wait queues in kernel style: threads sleep until a condition of their own holds, and a thread that changes it wakes
 * them all.
 *
 *   struct kesa_wait_queue_entry entry;
 *   kesa_wait_queue_entry_init(&entry, kesa_thread_get_knl_tid());
 *   for (;;) {
 *     prepare_to_wait(&queue, &entry);   // from here on no wake-up is lost; needed again before each sleep
 *     before_wait();
 *     if (condition) break;
 *     sched_wait_timeout(&entry, 250);
 *   }
 *   finish_wait(&queue, &entry);
 *
 * Waiters are woken by SIGWAKEUP (tirn/sched.h), which they must not block; they are threads of one process. In a
 * forked child the thread has another id, so an entry that was initialised before the fork cannot be used there.
 */
#ifndef TIRN_WAIT_H
#define TIRN_WAIT_H

#include "tirn/base.h"
#include "tirn/lock.h"

TIRN_EXTERN_C_BEGIN

/* The head must stay until __wake_up has returned, even if the last waiter is done before. */
struct kesa_wait_queue_head {
  struct kesa_spinlock lock;
  struct kesa_list_head list; /* the newest entry at the front */
};

/* The entry belongs to the waiting thread and may be freed when finish_wait has returned. */
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

/* Makes the record an entry that is on no queue. `tid` is the waiter's id, see kesa_thread_get_knl_tid
 * (tirn/thread.h).
 * @safety MT-Unsafe race:entry, AS-Safe */
static inline void kesa_wait_queue_entry_init(struct kesa_wait_queue_entry* entry, uint32_t tid) {
  entry->tid = tid;
  entry->state = 0;
  entry->reserved = NULL;
  entry->link.next = entry->link.prev = &entry->link;
}

/* Sets the entry waiting, and puts it at the front of the queue if it is on none. From here to finish_wait the queue
 * points at the entry, so a thread that can be cancelled must hold cancellation off. The two waits are no
 * cancellation points.
 * @returns 0.
 * @safety MT-Safe race:entry, AS-Unsafe lock */
TIRN_API int prepare_to_wait(struct kesa_wait_queue_head* head, struct kesa_wait_queue_entry* entry);

/* Does nothing; marks the place between prepare_to_wait and the sleep.
 * @safety MT-Safe, AS-Safe */
TIRN_API void before_wait(void);

/* Sleeps until the entry is woken, for at most a second.
 * @returns 0 when the time is up or the kernel side fails, -1 if a wake-up or another signal ended the sleep.
 * @safety MT-Safe, AS-Unsafe init */
TIRN_API int sched_wait(struct kesa_wait_queue_entry* entry);

/* Sleeps until the entry is woken, for at most `timeout` jiffies of 4 ms.
 * @returns the jiffies left; 0 when the time is up, if the kernel side fails, or for a timeout of 0 or less.
 * @safety MT-Safe, AS-Unsafe init */
TIRN_API int64_t sched_wait_timeout(struct kesa_wait_queue_entry* entry, int64_t timeout);

/* Takes the entry off the queue if it has not been woken. From then on it belongs to the caller alone.
 * @safety MT-Safe race:entry, AS-Unsafe lock */
TIRN_API void finish_wait(struct kesa_wait_queue_head* head, struct kesa_wait_queue_entry* entry);

/* Wakes all entries of the queue, the newest first, and empties it. The signals are sent under the queue's lock. A
 * signal that cannot be sent is not sent again: waiters sleep with a timeout.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API void __wake_up(struct kesa_wait_queue_head* head);

/* Does nothing.
 * @returns 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int autoremove_wake_function(void);

TIRN_EXTERN_C_END

#endif
