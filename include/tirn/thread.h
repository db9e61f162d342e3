/*
 * Threads: starting them, alone or on a pool of waiting workers, the table in which they are found, and what a thread
 * knows of itself without a system call.
 */
#ifndef TIRN_THREAD_H
#define TIRN_THREAD_H

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/types.h>

#include "tirn/base.h"
#include "tirn/thread_strategy.h"

TIRN_EXTERN_C_BEGIN

#define KESA_THREAD_SLOTS 2048u           /* threads in the table at most; also workers of the pool */
#define KESA_THREAD_NAME_SIZE 16          /* with the terminator */
#define KESA_THREAD_SIGNAL_STACK 65536u   /* bytes */
#define KESA_THREAD_SMALL_STACK 131072u   /* bytes; see kesa_set_instant_map_flag */
#define KESA_THREAD_SWITCHES 3            /* switch records that are kept */
#define KESA_THREAD_NO_IOD_ID 0xFFFFFFFFu /* of a thread that has no iod thread id */

/* What a slot's thread is doing. Lookups find threads in one of the states of THRD_SLOT_ALIVE. */
enum thrd_slot_state {
  THRD_SLOT_TAKEN = 1,      /* not yet running */
  THRD_SLOT_RUNNING = 2,    /* runs a user function */
  THRD_SLOT_POOL_IDLE = 4,  /* a pool worker that waits for a job */
  THRD_SLOT_POOL_BOUND = 8, /* a pool worker that was given a job */
  THRD_SLOT_DEAD = 16,      /* has left its user function and is ending */
  THRD_SLOT_ALIVE = THRD_SLOT_RUNNING | THRD_SLOT_POOL_IDLE | THRD_SLOT_POOL_BOUND,
};

enum kesa_thread_context {
  KESA_THREAD_CONTEXT_NONE = 0,
  KESA_THREAD_CONTEXT_IOD = 1,
  KESA_THREAD_CONTEXT_IRQ = 2,
};

/* A user function; its result is ignored. */
typedef void* (*kesa_thread_fn)(void* arg);

struct kesa_thread_s;

/* A place in the table. Both numbers are atomic. */
struct ThreadSlot {
  uint32_t refs;              /* 0: free */
  uint32_t state;             /* enum thrd_slot_state */
  struct kesa_thread_s* info; /* stays with the slot, and serves its next thread */
};

/* A change from one lightweight instance to another. */
struct kesa_thread_switch {
  uint64_t old_instance;
  uint64_t new_instance;
  uint64_t return_addresses[9];
};

/* A thread's record. */
struct kesa_thread_s {
  struct ThreadSlot* slot; /* NULL: allocated outside the table */
  pthread_t thread;        /* of pool workers */
  kesa_thread_fn fn;
  void* arg;
  char name[KESA_THREAD_NAME_SIZE]; /* "[NULL]" until one is set */
  uint32_t tid;                     /* the kernel's id; 0 until the thread runs */
  int32_t pid;
  int32_t strategy;   /* -1 until one is applied */
  uint32_t context;   /* enum kesa_thread_context */
  uint32_t iod_id;    /* KESA_THREAD_NO_IOD_ID until one is given */
  uint64_t stack_low; /* bounds of the stack that the system made; 0 until the thread runs */
  uint64_t stack_high;
  uint8_t* signal_stack; /* KESA_THREAD_SIGNAL_STACK bytes */
  sem_t wake;            /* of pool workers */
  uint64_t switch_count;
  struct kesa_thread_switch switches[KESA_THREAD_SWITCHES]; /* the next one is written at switch_count modulo 3 */
};

/* Lightweight contexts' stacks. */
struct kesa_lwt_stack_ops {
  int (*is_lwt_stack)(uint64_t sp);                                  /* 0: the address lies on such a stack */
  int (*get_lwt_stack)(uint64_t sp, uint64_t* start, uint64_t* end); /* 0: the bounds were stored */
};

/* The calling thread's record, or NULL. */
TIRN_API extern __thread struct kesa_thread_s* m_current_thread;
/* Caches of kesa_thrd_getpid_accl and kesa_thrd_gettid_accl: -1 and all ones until they are filled. */
TIRN_API extern __thread int g_siKesaThrdPID;
TIRN_API extern __thread uint64_t g_ullKesaThrdId;
/* The logical CPU and the node that this thread claims to be on; -1: none. */
TIRN_API extern __thread int my_core;
TIRN_API extern __thread int my_numa;

/* 1 after kesa_set_instant_map_flag, else 0. */
TIRN_API extern int g_siProcMapFlag;

/*
 * Starting threads. All are detached. The new thread's pthread_t goes to `id_out`, if that is not NULL; of a job in
 * the pool it is the worker's, and means something only while the job runs. A thread beyond the table's
 * KESA_THREAD_SLOTS works like the others, but neither lookups nor the list show it. Results: 0; -1 on failure, and for
 * a NULL function.
 *
 * A thread may be cancelled in its function, or leave it by pthread_exit: its record is given back all the same. Of a
 * worker of the pool, a cancellation that is sent while it waits meets its next job.
 *
 * Between two jobs a worker gets back its binding to all configured CPUs and strategy 0. Whatever else a job changes of
 * its thread, the next job finds: the core and node that it claims, its context and iod id, and its nice value where
 * strategy 0 is not set up.
 */

/* Gives the function to an idle worker of the pool; without one, starts a thread.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_thrd_create(kesa_thread_fn fn, void* arg, pthread_t* id_out);

/* Starts a thread with the system's default attributes.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int create_thread_raw(kesa_thread_fn fn, void* arg, pthread_t* id_out);

/* The same as create_thread_raw.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_thread_create_raw(kesa_thread_fn fn, void* arg, pthread_t* id_out);

/* As kesa_thrd_create; the thread that it starts has a stack of KESA_THREAD_SMALL_STACK bytes where the instant-map
 * flag is set.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int create_thread_nopreempt_raw(kesa_thread_fn fn, void* arg, pthread_t* id_out);

/* Starts a thread with the caller's attributes, which are set to detached (NULL: the default ones). The thread takes
 * no strategy.
 * @safety MT-Safe race:attr, AS-Unsafe lock heap */
TIRN_API int kesa_thrd_create_attr(kesa_thread_fn fn, void* arg, pthread_t* id_out, pthread_attr_t* attr);

/* Gives the function to an idle worker of the pool. -1 where there is none. A job that is given while
 * kesa_thread_pool_destroy runs is run or refused.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int create_thread_from_thread_pool(kesa_thread_fn fn, void* arg, pthread_t* id_out);

/* The core of the others: starts `entry` with the thread's new record as its argument. `entry` sets the thread up,
 * calls the record's function, and gives the record back with kesa_thrd_putthreadinfo. It cannot set the slot's state:
 * its thread stays in THRD_SLOT_TAKEN, where neither lookups nor the list find it. `attr` may be NULL.
 * @safety MT-Safe race:attr, AS-Unsafe lock heap */
TIRN_API int create_thread_raw_base(kesa_thread_fn fn, void* arg, kesa_thread_fn entry, pthread_t* id_out,
                                    pthread_attr_t* attr);

/* Starts `entry`, as create_thread_raw_base does, for the pool: -1, without a message, where the table is full.
 * @safety MT-Safe race:attr, AS-Unsafe lock heap */
TIRN_API int create_thread_pool_base(kesa_thread_fn entry, pthread_attr_t* attr);

/*
 * Makes the pool, at most KESA_THREAD_SLOTS workers, once per process. A quarter of them is started here, the others
 * by one of the workers. The threads made so far; 0 for a count of 0, and when a pool was asked for before.
 * A forked child has no pool, and may make one of its own.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API uint32_t kesa_thread_pool_create(uint32_t count);

/* Ends the pool for good: idle workers end, others after their job. It does not wait for them, but takes about 10
 * milliseconds. The workers that were still there then, 0 without a pool.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API uint32_t kesa_thread_pool_destroy(void);

/* pthread_attr_init. 0; -1 for NULL and on failure. @safety MT-Safe race:attr, AS-Unsafe heap */
TIRN_API int kesa_thrd_attr_init(pthread_attr_t* attr);

/* pthread_attr_destroy. 0; -1 for NULL and on failure. @safety MT-Safe race:attr, AS-Unsafe heap */
TIRN_API int kesa_thrd_attr_destroy(pthread_attr_t* attr);

/* pthread_attr_setstacksize. 0; -1 for NULL and on failure. @safety MT-Safe race:attr, AS-Safe */
TIRN_API int kesa_thrd_setstacksize(pthread_attr_t* attr, size_t size);

/* sched_yield. @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thrd_yield(void);

/* From now on workers of the pool and the threads of create_thread_nopreempt_raw get stacks of
 * KESA_THREAD_SMALL_STACK bytes. Cannot be taken back. Always 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_set_instant_map_flag(void);

/* g_siProcMapFlag.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_get_instant_map_flag(void);

/* The calling thread's record, or NULL.
 * @safety MT-Safe, AS-Safe */
TIRN_API struct kesa_thread_s* kesa_thrd_currentthreadinfo(void);

/* The living thread of this kernel id, or NULL. The record stays until kesa_thrd_putthreadinfo; the thread may end
 * meanwhile.
 * @safety MT-Safe, AS-Unsafe heap (through kesa_thrd_putthreadinfo) */
TIRN_API struct kesa_thread_s* kesa_thrd_getthreadinfobytid(uint32_t tid);

/* Drops a reference on a record; frees one that is not in the table. Nothing for NULL.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API void kesa_thrd_putthreadinfo(struct kesa_thread_s* record);

/* Adopts the calling thread, where it was not started here: it gets a record and a signal stack. 0, also where it has
 * a record; -1 where none can be made.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_thrd_setcurthreadinfo(void);

/* Ends what kesa_thrd_setcurthreadinfo began; an adopted thread is to call it before it ends. 0; -1 without a record.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_thrd_clearcurthreadinfo(void);

/* What threads need set up; each way of creating one does this first. Always 0.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API int kesa_thrd_module_init(void);

/* Prints the living threads of the table, one to a line. The last four arguments are not used. Nothing for a NULL
 * function. No thread is held while `print` runs.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API void kesa_thrd_list(kesa_print_fn print, uint64_t a, uint64_t b, uint64_t c, uint64_t d);

/* Names the calling thread, in its record and in the kernel; the name is cut at 15 characters. A thread without a
 * record keeps its name. Always 0: the log tells of failures.
 * @safety MT-Safe locale, AS-Unsafe heap */
TIRN_API int kesa_thrd_setname(const char* format, ...) TIRN_PRINTF(1, 2);

/* The calling thread's name; NULL without a record.
 * @safety MT-Safe, AS-Safe */
TIRN_API const char* kesa_thrd_getname(void);

/* The kernel's id of the calling thread: of its record, or by a system call.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint32_t kesa_thread_get_knl_tid(void);

/* Fills this thread's cache of the process id: also to be called in the child after fork. Always 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thrd_setpid_accl(void);

/* The process id, from this thread's cache.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thrd_getpid_accl(void);

/* Fills this thread's cache of its pthread_t. Always 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thrd_settid_accl(void);

/* The calling thread's pthread_t, from its cache.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint64_t kesa_thrd_gettid_accl(void);

/* The CPU that this thread claims to be on; where it claims none, the one that it is on, or -1.
 * @safety MT-Safe, AS-Safe */
TIRN_API int smp_processor_id(void);

/* Stores my_core.
 * @safety MT-Safe, AS-Safe */
TIRN_API void kesa_thrd_core_set(int core);

/* Stores my_numa.
 * @safety MT-Safe, AS-Safe */
TIRN_API void kesa_thrd_numaId_set(int id);

/* my_numa.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thrd_numaId_get(void);

/*
 * The execution context of the calling thread, in its record. Without a record the functions do nothing and give 0.
 */

/* The thread is iod thread `id` from now on. Always 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thread_run_in_iod_context_init(uint32_t id);

/* 1 in an iod context, else 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thread_run_in_iod_context_check(void);

/* 1 in an irq context, else 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thread_run_in_irq_context_check(void);

/* The iod thread id: KESA_THREAD_NO_IOD_ID until one is given.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint32_t kesa_thread_iod_thread_id_get(void);

/* Stores the context through `saved` and enters an irq context. Always 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thread_run_in_irq_context_save(uint32_t* saved);

/* Goes back to a saved context. Always 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thread_run_in_irq_context_restore(uint32_t saved);

/* The bounds of the calling thread's stack, as the system made it. 0; -1 where they are not known.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thrd_getosstack(uint64_t* start, uint64_t* end);

/* The bounds of the calling thread's signal stack. 0; -1 where there is none.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thrd_getsigstack(uint64_t* start, uint64_t* end);

/* kesa_thrd_getosstack of a living thread, by the kernel's id.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_thread_get_specific_stack(uint32_t tid, uint64_t* start, uint64_t* end);

/* Registers how stacks of lightweight contexts are recognised. 0; -1 for NULL. One of the two functions may be new and
 * the other old for a thread that asks meanwhile.
 * @safety MT-Safe, AS-Safe */
TIRN_API int register_lwt_stack_ops(const struct kesa_lwt_stack_ops* ops);

/* Forgets both functions. Always 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int unregister_lwt_stack_ops(void);

/* 0 where the address lies on the stack of a lightweight context; -1 where nobody knows of such.
 * @safety MT-Safe, AS-Safe (as the registered function) */
TIRN_API int kesa_thrd_islwtstack(uint64_t sp);

/* The bounds of that stack. 0 on success; -1 where nobody knows of such.
 * @safety MT-Safe, AS-Safe (as the registered function) */
TIRN_API int kesa_thrd_getlwtstack(uint64_t sp, uint64_t* start, uint64_t* end);

/* The bytes that a stack of unknown kind is taken to have; 4096 until set.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint64_t kesa_thrd_getunknownstacksize(void);

/* Sets these bytes. All of them are read when such a stack is walked.
 * @safety MT-Safe, AS-Safe */
TIRN_API void kesa_thrd_setunknownstacksize(uint64_t size);

/*
 * Tells on which stack of the calling thread an address lies: stores its name and bounds. "LWT_STACK", "OS_STACK" (also
 * one page below its low bound), "SIG_STACK", or "UNKNOWN_STACK" for an address at most 8192 bytes above this call's
 * own frame. 0; -1 for a NULL `name`, and on none of them: "INVALID_STACK" or "INVALID_LWT_STACK", with the bounds
 * as they were.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_thrd_getcurrentstack(uint64_t sp, uint64_t* start, uint64_t* end, const char** name);

/* The return addresses of the calling functions, by their frame pointers: `count` entries behind the first `skip`
 * frames, 0 where the chain of frames has left the stack. 0; -1 where the stack is not known.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thrd_backtrace(uint64_t* out, uint32_t count, uint32_t skip);

/*
 * Binding to CPUs. Sets have 1024 bits; kesa_thrd_setbindcpu looks at the configured CPUs' part of them. Results: 0, or -1.
 */

/* Binds a thread to the CPUs of a set. An empty set changes nothing.
 * @safety MT-Safe race:set, AS-Unsafe heap */
TIRN_API int kesa_thrd_setbindcpu(pthread_t thread, const cpu_set_t* set);

/* The CPUs that a thread is bound to.
 * @safety MT-Safe race:set, AS-Unsafe heap */
TIRN_API int kesa_thrd_getbindcpu(pthread_t thread, cpu_set_t* set);

/* The same by the kernel's id; 0: the calling thread.
 * @safety MT-Safe race:set, AS-Unsafe heap */
TIRN_API int kesa_thrd_getbindcpu_bypid(pid_t pid, cpu_set_t* set);

/* Binds the calling thread to all configured CPUs.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_thrd_bindAllCfgCpu(void);

/* Copies the process's name as of the first call, at most len - 1 characters. 0; -1 where it cannot be read (a later
 * call tries again) or copied.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_get_process_name(char* buf, uint32_t len);

/* Copies the file name of the process's program, as of the first call, at most min(len, 32) - 1 characters. 0; -1 for
 * NULL, and where it cannot be read (a later call tries again) or copied.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_get_process_exe_name(char* buf, uint32_t len);

/* Has the kernel side print a thread's status. Always 0.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_thrd_getstatus(uint32_t tid);

/* Has the kernel side print the stack of what runs on a CPU. Always 0.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_thrd_dump_cpu_stack_knl(uint32_t cpu);

/* Has the kernel side print the stack of the current thread of a CPU. 0, or -1.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thrd_dump_cpu_stack(uint32_t cpu);

/* Has the kernel side print the stack of a thread that does not run. The result of the call.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thrd_dump_thread_stack_if_not_running(uint32_t tid);

/*
 * A number that all processes of one user on a node share.
 */

/* Stores it. 0; -1 where the shared cell cannot be made.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_thread_watch_add(uint32_t value);

/* Stores 0. Always 0.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_thread_watch_del(void);

/* The number; 0 where none was ever stored, or the shared cell cannot be made.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API uint32_t kesa_thread_watch_get(void);

TIRN_EXTERN_C_END

#endif
