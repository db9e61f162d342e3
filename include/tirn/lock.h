/*
 * Locks of a few words that need no set-up by the system: a plain spinlock that sleeps after it has spun for 100 us,
 * a read-write lock in one word, and a spinlock and a read-write lock that serve threads in order of arrival.
 *
 * No lock is recursive. No lock masks signals: a signal handler that takes a lock which its thread holds waits for
 * ever. All locks work between processes that share the record's memory. In a forked child, a lock that another
 * thread held at the fork stays held. Waiting does not change errno and is no cancellation point, even where it
 * sleeps (the plain spinlock and the mayblock forms). A thread that spins gives the processor its spin hint after
 * each attempt; the plain spinlock gives it after each burst of attempts, and the mayblock forms sleep instead.
 *
 * Which lock to take: the plain spinlock, or the word lock if most threads only read. Consider the two ticket locks,
 * for their order, only if there are never more threads at the lock than processors. When the thread whose turn it is
 * loses its processor, all threads after it spin until it runs again: four threads on two processors get a hundredth
 * of the plain spinlock's throughput and wait for more than 100 ms. docs/locks.md has the figures.
 *
 * C++ programs find types for std::lock_guard and std::shared_lock in tirn/lock.hpp.
 */
#ifndef TIRN_LOCK_H
#define TIRN_LOCK_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* Plain spinlock: waiters are served in no particular order. */

#define KESA_SPINLOCK_MAGIC 0xDEAD4EADu

/* Zeroed memory is a free lock too. */
struct kesa_spinlock {
  uint64_t lock;  /* 0: free, 1: held */
  uint32_t magic; /* this and the rest mark the lock in memory dumps; nothing tests or changes them */
  uint32_t other;
  uint64_t owner;
};

#define KESA_SPINLOCK_INIT \
  { 0, KESA_SPINLOCK_MAGIC, UINT32_MAX, UINT64_MAX }

/* Makes the record a free lock.
 * @safety MT-Safe race:spinlock, AS-Safe */
static inline void kesa_spinlock_init(struct kesa_spinlock* spinlock) {
  spinlock->lock = 0;
  spinlock->magic = KESA_SPINLOCK_MAGIC;
  spinlock->other = UINT32_MAX;
  spinlock->owner = UINT64_MAX;
}

/*
 * Takes the lock. A thread that has spun for 100 us sleeps for 1 ms and then spins again, until it has the lock.
 * Before kesa_gettime_init there is no clock, and the thread never sleeps. `where` and `line` name the caller; they
 * are not used.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API void do_kesa_spinlock_lock(struct kesa_spinlock* spinlock, const char* where, uint32_t line);

/* Makes one attempt to take the lock.
 * @returns 1 if the lock was taken, 0 if not.
 * @safety MT-Safe, AS-Safe */
TIRN_API int do_kesa_spinlock_trylock(struct kesa_spinlock* spinlock, const char* where, uint32_t line);

/* Releases the lock, whichever thread holds it.
 * @safety MT-Safe, AS-Safe */
TIRN_API void do_kesa_spinlock_unlock(struct kesa_spinlock* spinlock, const char* where, uint32_t line);

#define kesa_spinlock_lock(spinlock) do_kesa_spinlock_lock((spinlock), __func__, __LINE__)
#define kesa_spinlock_trylock(spinlock) do_kesa_spinlock_trylock((spinlock), __func__, __LINE__)
#define kesa_spinlock_unlock(spinlock) do_kesa_spinlock_unlock((spinlock), __func__, __LINE__)

/* The only flag: a thread that is about to sleep while it waits for a plain spinlock prints three return addresses of
 * its stack, starting in the caller of the function that called do_kesa_spinlock_lock. */
#define KESA_SPINLOCK_FLAG_DUMP UINT64_C(1)

/* Sets flags of this process. If two threads set or clear flags at the same time, one change may be lost.
 * @returns 0.
 * @safety MT-Safe race:flags, AS-Safe */
TIRN_API int kesa_spinlock_set_flags(uint64_t flags);

/* Clears flags of this process. See kesa_spinlock_set_flags.
 * @returns 0.
 * @safety MT-Safe race:flags, AS-Safe */
TIRN_API int kesa_spinlock_clear_flags(uint64_t flags);

/* Stores the flags of this process in `*flags`.
 * @returns 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_spinlock_get_flags(uint64_t* flags);

/*
 * Writes a log line, without the log's prefix and at any log level, with the thread's id and three return addresses
 * of its stack, innermost first. Each has the name of its function if that is known (so far none is). A `skip` of 0
 * begins with the address in the caller. Frame pointers are followed within the stack that kesa_thrd_getcurrentstack
 * (tirn/thread.h) finds, or about 4 KiB up if it finds none. An address after the end of the chain is shown as (nil).
 * @safety MT-Safe, AS-Safe
 */
TIRN_API void debug_dump_stack(uint32_t skip);

/* Word read-write lock: one 64-bit word. It is the number of readers that hold the lock, 0 when it is free, and has
 * KESA_RWLOCK_WRITER set while a writer holds it. Writers have no priority: a steady stream of readers keeps a writer
 * out for ever. */

#define KESA_RWLOCK_WRITER (UINT64_C(1) << 63)

/* Takes a read hold; spins while a writer holds the lock.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API void kesa_rwlock_read_lock(uint64_t* rwlock);

/* Takes a read hold unless a writer holds the lock.
 * @returns 1 if the read hold was taken, 0 if not.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_rwlock_try_read_lock(uint64_t* rwlock);

/* Takes the write hold; spins while any thread holds the lock.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API void kesa_rwlock_write_lock(uint64_t* rwlock);

/* Takes a read hold; sleeps for 1 us after every ten attempts.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API void kesa_rwlock_read_lock_mayblock(uint64_t* rwlock);

/* Takes the write hold; sleeps for 1 us after every ten attempts.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API void kesa_rwlock_write_lock_mayblock(uint64_t* rwlock);

/* Releases a read hold.
 * @safety MT-Safe, AS-Safe */
static inline void kesa_rwlock_read_unlock(uint64_t* rwlock) { __atomic_fetch_sub(rwlock, 1, __ATOMIC_RELEASE); }

/* Releases the write hold.
 * @safety MT-Safe, AS-Safe */
static inline void kesa_rwlock_write_unlock(uint64_t* rwlock) { __atomic_store_n(rwlock, 0, __ATOMIC_RELEASE); }

/* Ticket spinlock: serves threads in order of arrival and logs misuse, at info level. Misuse changes nothing else:
 * the operation goes on as if all were well. A waiter never gives the processor up, so there should be no more
 * threads at such a lock than processors. */

#define KESA_TSPINLOCK_MAGIC 0xDEAD5EADu
#define KESA_TSPINLOCK_DESTROYED 0x5EADDEADu
#define KESA_TSPINLOCK_NO_OWNER UINT64_MAX

struct kesa_tspinlock {
  __extension__ union {
    struct {
      uint32_t serving; /* the ticket whose turn it is; free when it equals `next` */
      uint32_t next;    /* the ticket of the next thread to arrive */
    };
    uint64_t turns; /* both; only printed */
  };
  uint32_t magic; /* KESA_TSPINLOCK_MAGIC, or KESA_TSPINLOCK_DESTROYED */
  uint32_t other; /* all ones; only printed */
  uint64_t owner; /* the holder's kernel thread id (kesa_thread_get_knl_tid), or KESA_TSPINLOCK_NO_OWNER */
};

/*
 * Makes the record a free lock, even if it is held. Logs "ReInited lock" if the record is initialised already, with
 * the record as it was. `where` and `line`, here and below, name the caller in the log.
 * @safety MT-Safe race:tspinlock, AS-Unsafe heap
 */
TIRN_API void do_kesa_tspinlock_init(struct kesa_tspinlock* tspinlock, const char* where, uint32_t line);

/*
 * Takes a ticket and waits for its turn. Logs "UnInited lock" if the record is not initialised; it works all the same
 * if its memory was zero. Logs "AA lock" if the thread holds the lock already; it then waits for ever.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API void do_kesa_tspinlock_lock(struct kesa_tspinlock* tspinlock, const char* where, uint32_t line);

/* Takes the lock if it is free. Logs the same misuse as do_kesa_tspinlock_lock.
 * @returns 1 if the lock was taken, 0 if not.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int do_kesa_tspinlock_trylock(struct kesa_tspinlock* tspinlock, const char* where, uint32_t line);

/*
 * Ends the present turn, whichever thread holds the lock. Logs "UnInited lock" if the record is not initialised, "AB
 * lock" if the calling thread does not hold the lock, and "ReUnlock" if no thread does. After a "ReUnlock" the next
 * thread to arrive waits until the turns have wrapped around 2^32.
 * @safety MT-Safe, AS-Unsafe heap
 */
TIRN_API void do_kesa_tspinlock_unlock(struct kesa_tspinlock* tspinlock, const char* where, uint32_t line);

/* Marks the record as destroyed and changes nothing else. Logs "UnInited lock" if it is not initialised.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API void do_kesa_tspinlock_destroy(struct kesa_tspinlock* tspinlock, const char* where, uint32_t line);

#define kesa_tspinlock_init(tspinlock) do_kesa_tspinlock_init((tspinlock), __func__, __LINE__)
#define kesa_tspinlock_lock(tspinlock) do_kesa_tspinlock_lock((tspinlock), __func__, __LINE__)
#define kesa_tspinlock_trylock(tspinlock) do_kesa_tspinlock_trylock((tspinlock), __func__, __LINE__)
#define kesa_tspinlock_unlock(tspinlock) do_kesa_tspinlock_unlock((tspinlock), __func__, __LINE__)
#define kesa_tspinlock_destroy(tspinlock) do_kesa_tspinlock_destroy((tspinlock), __func__, __LINE__)

/* Ticket read-write lock: serves threads in order of arrival; readers between two writers hold it together. A waiter
 * never gives the processor up. Zeroed memory is a free lock. */

/* Counters that wrap. Each pair changes as one word. */
struct kesa_trwlock {
  __extension__ union {
    struct {
      uint32_t released;         /* holds released */
      uint32_t writers_released; /* those of writers among them */
    };
    uint64_t released_pair;
  };
  __extension__ union {
    struct {
      uint32_t tickets;        /* tickets handed out */
      uint32_t writer_tickets; /* those to writers among them */
    };
    uint64_t tickets_pair;
  };
};

/* Zeroes the record.
 * @safety MT-Safe race:trwlock, AS-Safe */
TIRN_API void do_kesa_trwlock_init(struct kesa_trwlock* trwlock);

/* Takes a read hold; waits for the writers that arrived before.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API void do_kesa_trwlock_read_lock(struct kesa_trwlock* trwlock);

/* Releases a read hold.
 * @safety MT-Safe, AS-Safe */
TIRN_API void do_kesa_trwlock_read_unlock(struct kesa_trwlock* trwlock);

/* Takes a read hold unless a writer holds the lock or waits for it.
 * @returns 1 if the read hold was taken, 0 if not.
 * @safety MT-Safe, AS-Safe */
TIRN_API int do_kesa_trwlock_read_trylock(struct kesa_trwlock* trwlock);

/* Takes the write hold; waits for all threads that arrived before.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API void do_kesa_trwlock_write_lock(struct kesa_trwlock* trwlock);

/* Releases the write hold.
 * @safety MT-Safe, AS-Safe */
TIRN_API void do_kesa_trwlock_write_unlock(struct kesa_trwlock* trwlock);

/* Takes the write hold unless any thread holds the lock or waits for it.
 * @returns 1 if the write hold was taken, 0 if not.
 * @safety MT-Safe, AS-Safe */
TIRN_API int do_kesa_trwlock_write_trylock(struct kesa_trwlock* trwlock);

/* Does nothing.
 * @safety MT-Safe, AS-Safe */
TIRN_API void do_kesa_trwlock_destroy(struct kesa_trwlock* trwlock);

TIRN_EXTERN_C_END

#endif
