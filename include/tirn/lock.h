/*
 * Locks of a few words that need no set-up by the system: a plain spinlock that sleeps when it has spun for 100 us, a
 * read-write lock in one word, and a spinlock and a read-write lock that serve in order of arrival.
 *
 * None is recursive, none masks signals: a signal handler that takes a lock which its thread holds waits for ever.
 * All work between processes that share the record's memory. In a forked child a lock that another thread held at the
 * fork stays held. Waiting does not change errno. While it waits, and between bursts of attempts where those are counted,
 * the processor gets its hint for spinning. What sleeps (the plain spinlock and the mayblock forms) is a cancellation
 * point.
 *
 * Which to take: the plain spinlock, or the word lock where most only read, unless there are never more threads at the
 * lock than processors. Only then are the two ticket locks a choice, for their order: when the one whose turn it is has
 * lost its processor, all behind it spin until it has it back, and four threads on two processors get a hundredth of
 * the plain spinlock's throughput and wait for more than 100 ms. docs/locks.md has the figures.
 *
 * C++ programs find types for std::lock_guard and std::shared_lock in tirn/lock.hpp.
 */
#ifndef TIRN_LOCK_H
#define TIRN_LOCK_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* Plain spinlock: no order among those who wait */

#define KESA_SPINLOCK_MAGIC 0xDEAD4EADu

/* Memory of zeros is a free lock too. */
struct kesa_spinlock {
  uint64_t lock;  /* 0: free, 1: held */
  uint32_t magic; /* the rest is for those who read dumps: nothing tests or changes it */
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
 * Takes the lock. Whoever has waited for 100 us sleeps for 1 ms before it tries again, as often as it takes; before
 * kesa_gettime_init there is no clock, and it never sleeps. `where` and `line` tell the caller; they are not used.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API void do_kesa_spinlock_lock(struct kesa_spinlock* spinlock, const char* where, uint32_t line);

/* One attempt: 1 if the lock was taken, 0 if not.
 * @safety MT-Safe, AS-Safe */
TIRN_API int do_kesa_spinlock_trylock(struct kesa_spinlock* spinlock, const char* where, uint32_t line);

/* Releases the lock, whoever holds it.
 * @safety MT-Safe, AS-Safe */
TIRN_API void do_kesa_spinlock_unlock(struct kesa_spinlock* spinlock, const char* where, uint32_t line);

#define kesa_spinlock_lock(spinlock) do_kesa_spinlock_lock((spinlock), __func__, __LINE__)
#define kesa_spinlock_trylock(spinlock) do_kesa_spinlock_trylock((spinlock), __func__, __LINE__)
#define kesa_spinlock_unlock(spinlock) do_kesa_spinlock_unlock((spinlock), __func__, __LINE__)

/* The one flag: whoever gives the processor up while it waits for a plain spinlock prints three frames of its stack,
 * from its caller's caller on. */
#define KESA_SPINLOCK_FLAG_DUMP UINT64_C(1)

/* Sets flags of this process. Always 0. Of two threads that set or clear flags at once one may be lost.
 * @safety MT-Safe race:flags, AS-Safe */
TIRN_API int kesa_spinlock_set_flags(uint64_t flags);

/* Clears flags of this process. Always 0. See kesa_spinlock_set_flags.
 * @safety MT-Safe race:flags, AS-Safe */
TIRN_API int kesa_spinlock_clear_flags(uint64_t flags);

/* Stores the flags of this process. Always 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_spinlock_get_flags(uint64_t* flags);

/*
 * Prints a line, without the log's prefix and whatever the levels, with the thread's id and three return addresses
 * of its stack, innermost first, each with the name of its function where that is known (none
 * is yet). A `skip` of 0 begins at the
 * address in the caller. Frame pointers are followed within the stack that kesa_thrd_getcurrentstack (tirn/thread.h) tells, else some
 * 4 KiB up; (nil) stands where they end.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API void debug_dump_stack(uint32_t skip);

/* Word read-write lock: one 64-bit word, 0 when free.
 * The number of readers that hold it, or a word with KESA_RWLOCK_WRITER set. Writers have no priority: readers that
 * keep coming keep a writer out for ever. */

#define KESA_RWLOCK_WRITER (UINT64_C(1) << 63)

/* Takes a read hold; spins while a writer holds the lock.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API void kesa_rwlock_read_lock(uint64_t* rwlock);

/* 1 if a read hold was taken, 0 if a writer holds the lock.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_rwlock_try_read_lock(uint64_t* rwlock);

/* Takes the write hold; spins while anybody holds the lock.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API void kesa_rwlock_write_lock(uint64_t* rwlock);

/* kesa_rwlock_read_lock that sleeps for 1 us after each ten attempts.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API void kesa_rwlock_read_lock_mayblock(uint64_t* rwlock);

/* kesa_rwlock_write_lock that sleeps for 1 us after each ten attempts.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API void kesa_rwlock_write_lock_mayblock(uint64_t* rwlock);

/* Gives a read hold back.
 * @safety MT-Safe, AS-Safe */
static inline void kesa_rwlock_read_unlock(uint64_t* rwlock) { __atomic_fetch_sub(rwlock, 1, __ATOMIC_RELEASE); }

/* Gives the write hold back.
 * @safety MT-Safe, AS-Safe */
static inline void kesa_rwlock_write_unlock(uint64_t* rwlock) { __atomic_store_n(rwlock, 0, __ATOMIC_RELEASE); }

/* Ticket spinlock: in order of arrival, and misuse is told by the log.
 * Misuse is told at info level and changes nothing: the operation goes on as if all were well. A waiter never gives
 * the processor up, so have no more threads at such a lock than processors. */

#define KESA_TSPINLOCK_MAGIC 0xDEAD5EADu
#define KESA_TSPINLOCK_DESTROYED 0x5EADDEADu
#define KESA_TSPINLOCK_NO_OWNER UINT64_MAX

struct kesa_tspinlock {
  __extension__ union {
    struct {
      uint32_t serving; /* the ticket whose turn it is; free when it equals `next` */
      uint32_t next;    /* the ticket that the next one to come gets */
    };
    uint64_t turns; /* both; only printed */
  };
  uint32_t magic; /* KESA_TSPINLOCK_MAGIC, or KESA_TSPINLOCK_DESTROYED */
  uint32_t other; /* all ones; only printed */
  uint64_t owner; /* the holder's kernel thread id (kesa_thread_get_knl_tid), or KESA_TSPINLOCK_NO_OWNER */
};

/*
 * Makes the record a free lock, even one that is held. Told: "ReInited lock", for a record that is initialised (with
 * the record as it was). `where` and `line`, here and below, name the caller in what is told.
 * @safety MT-Safe race:tspinlock, AS-Unsafe heap
 */
TIRN_API void do_kesa_tspinlock_init(struct kesa_tspinlock* tspinlock, const char* where, uint32_t line);

/*
 * Waits for its turn. Told: "UnInited lock", and "AA lock" if the thread holds the lock already; it then waits for
 * ever. Without initialisation the lock works where the memory was zero.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API void do_kesa_tspinlock_lock(struct kesa_tspinlock* tspinlock, const char* where, uint32_t line);

/* 1 if the lock was free and is taken, 0 if not. Told: as by do_kesa_tspinlock_lock.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int do_kesa_tspinlock_trylock(struct kesa_tspinlock* tspinlock, const char* where, uint32_t line);

/*
 * Ends the present turn, whoever holds the lock. Told: "UnInited lock"; "AB lock" if the lock is not the thread's;
 * "ReUnlock" if nobody holds it. After the last the next one to come waits until the turns have gone round 2^32.
 * @safety MT-Safe, AS-Unsafe heap
 */
TIRN_API void do_kesa_tspinlock_unlock(struct kesa_tspinlock* tspinlock, const char* where, uint32_t line);

/* Marks the record destroyed and changes nothing else. Told: "UnInited lock".
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API void do_kesa_tspinlock_destroy(struct kesa_tspinlock* tspinlock, const char* where, uint32_t line);

#define kesa_tspinlock_init(tspinlock) do_kesa_tspinlock_init((tspinlock), __func__, __LINE__)
#define kesa_tspinlock_lock(tspinlock) do_kesa_tspinlock_lock((tspinlock), __func__, __LINE__)
#define kesa_tspinlock_trylock(tspinlock) do_kesa_tspinlock_trylock((tspinlock), __func__, __LINE__)
#define kesa_tspinlock_unlock(tspinlock) do_kesa_tspinlock_unlock((tspinlock), __func__, __LINE__)
#define kesa_tspinlock_destroy(tspinlock) do_kesa_tspinlock_destroy((tspinlock), __func__, __LINE__)

/* Ticket read-write lock: in order of arrival, readers between two writers together.
 * A waiter never gives the processor up. Memory of zeros is a free lock. */

/* Counters that wrap; each pair changes as one word. */
struct kesa_trwlock {
  __extension__ union {
    struct {
      uint32_t released;         /* holds given back */
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

/* Takes a read hold; waits for the writers that came before.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API void do_kesa_trwlock_read_lock(struct kesa_trwlock* trwlock);

/* Gives a read hold back.
 * @safety MT-Safe, AS-Safe */
TIRN_API void do_kesa_trwlock_read_unlock(struct kesa_trwlock* trwlock);

/* 1 if a read hold was taken, 0 if a writer holds the lock or waits for it.
 * @safety MT-Safe, AS-Safe */
TIRN_API int do_kesa_trwlock_read_trylock(struct kesa_trwlock* trwlock);

/* Takes the write hold; waits for all that came before.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API void do_kesa_trwlock_write_lock(struct kesa_trwlock* trwlock);

/* Gives the write hold back.
 * @safety MT-Safe, AS-Safe */
TIRN_API void do_kesa_trwlock_write_unlock(struct kesa_trwlock* trwlock);

/* 1 if the write hold was taken, 0 if anybody holds the lock or waits for it.
 * @safety MT-Safe, AS-Safe */
TIRN_API int do_kesa_trwlock_write_trylock(struct kesa_trwlock* trwlock);

/* Does nothing.
 * @safety MT-Safe, AS-Safe */
TIRN_API void do_kesa_trwlock_destroy(struct kesa_trwlock* trwlock);

TIRN_EXTERN_C_END

#endif
