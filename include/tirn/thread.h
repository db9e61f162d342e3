/*
 * Threads: starting them, alone or on a pool of waiting workers; the table in which they are found; and what a thread
 * knows about itself without a system call.
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
  struct kesa_thread_s* info; /* stays with the slot, for its next thread */
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
  pthread_t thread;        /* pool workers only */
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
  sem_t wake;            /* pool workers only */
  uint64_t switch_count;
  struct kesa_thread_switch switches[KESA_THREAD_SWITCHES]; /* the next one is written at switch_count modulo 3 */
};

/* The functions that know the stacks of lightweight contexts. */
struct kesa_lwt_stack_ops {
  int (*is_lwt_stack)(uint64_t sp);                                  /* 0: the address lies on such a stack */
  int (*get_lwt_stack)(uint64_t sp, uint64_t* start, uint64_t* end); /* 0: the bounds were stored */
};

/* The calling thread's record, or NULL. */
TIRN_API extern __thread struct kesa_thread_s* m_current_thread;
/* Caches of kesa_thrd_getpid_accl and kesa_thrd_gettid_accl: -1 and all ones until they are filled. */
TIRN_API extern __thread int g_siKesaThrdPID;
TIRN_API extern __thread uint64_t g_ullKesaThrdId;
/* The logical CPU and the NUMA node that this thread claims to be on; -1: none. */
TIRN_API extern __thread int my_core;
TIRN_API extern __thread int my_numa;

/* 1 after kesa_set_instant_map_flag, else 0. */
TIRN_API extern int g_siProcMapFlag;

/*
 * Starting threads. All threads are detached. The new thread's pthread_t is stored in `id_out`, unless that is NULL.
 * For a job in the pool it is the worker's, and is valid only while the job runs. A thread beyond the table's
 * KESA_THREAD_SLOTS works like the others, but neither lookups nor the list show it. A NULL function gives -1.
 *
 * A thread may be cancelled in its function, or leave it by pthread_exit: its record is released all the same. A
 * cancellation that is sent to an idle worker of the pool stays pending and cancels its next job.
 *
 * After each job a worker is bound to all configured CPUs again and takes strategy 0. Whatever else a job changes
 * stays for the next job: the core and node that the thread claims, its context and iod id, and its nice value if
 * strategy 0 is not set up.
 */

/* Gives the function to an idle worker of the pool, or starts a thread if there is none.
 * @returns 0, or -1.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_thrd_create(kesa_thread_fn fn, void* arg, pthread_t* id_out);

/* Starts a thread with the system's default attributes. @returns 0, or -1. @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int create_thread_raw(kesa_thread_fn fn, void* arg, pthread_t* id_out);

/* Calls create_thread_raw. @returns its result. @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_thread_create_raw(kesa_thread_fn fn, void* arg, pthread_t* id_out);

/* Does the same as kesa_thrd_create, but a thread that it starts has a stack of KESA_THREAD_SMALL_STACK bytes if the
 * instant-map flag is set.
 * @returns 0, or -1.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int create_thread_nopreempt_raw(kesa_thread_fn fn, void* arg, pthread_t* id_out);

/* Starts a thread with the caller's attributes (NULL: the default ones), which are set to detached. The thread takes
 * no strategy.
 * @returns 0, or -1.
 * @safety MT-Safe race:attr, AS-Unsafe lock heap */
TIRN_API int kesa_thrd_create_attr(kesa_thread_fn fn, void* arg, pthread_t* id_out, pthread_attr_t* attr);

/* Gives the function to an idle worker of the pool. While kesa_thread_pool_destroy runs, the job is run or refused.
 * @returns 0, or -1 if there is no idle worker.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int create_thread_from_thread_pool(kesa_thread_fn fn, void* arg, pthread_t* id_out);

/* Starts `entry` with the thread's new record as its argument; the other functions are built on this one. `entry`
 * sets the thread up, calls the record's function, and releases the record with kesa_thrd_putthreadinfo. It has no
 * means to set the slot's state, so the thread stays in THRD_SLOT_TAKEN, where neither lookups nor the list find it.
 * `attr` may be NULL.
 * @returns 0, or -1.
 * @safety MT-Safe race:attr, AS-Unsafe lock heap */
TIRN_API int create_thread_raw_base(kesa_thread_fn fn, void* arg, kesa_thread_fn entry, pthread_t* id_out,
                                    pthread_attr_t* attr);

/* Starts `entry` for the pool as create_thread_raw_base does, with no function in the record.
 * @returns 0; -1 if the table is full, which is not logged, or on another failure.
 * @safety MT-Safe race:attr, AS-Unsafe lock heap */
TIRN_API int create_thread_pool_base(kesa_thread_fn entry, pthread_attr_t* attr);

/* Makes the pool, of at most KESA_THREAD_SLOTS workers, once per process; a forked child may make a pool of its own.
 * A quarter of the workers is started here, the others by one of the workers.
 * @returns the number of threads started so far; 0 for a count of 0, and if a pool was asked for before.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API uint32_t kesa_thread_pool_create(uint32_t count);

/* Ends the pool for good: idle workers end now, the others after their job. The call takes about 10 milliseconds and
 * does not wait for the workers.
 * @returns the number of workers that have not ended by then; 0 if there is no pool.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API uint32_t kesa_thread_pool_destroy(void);

/* Calls pthread_attr_init. @returns 0; -1 for NULL and on failure. @safety MT-Safe race:attr, AS-Unsafe heap */
TIRN_API int kesa_thrd_attr_init(pthread_attr_t* attr);

/* Calls pthread_attr_destroy. @returns 0; -1 for NULL and on failure. @safety MT-Safe race:attr, AS-Unsafe heap */
TIRN_API int kesa_thrd_attr_destroy(pthread_attr_t* attr);

/* Calls pthread_attr_setstacksize. @returns 0; -1 for NULL and on failure. @safety MT-Safe race:attr, AS-Safe */
TIRN_API int kesa_thrd_setstacksize(pthread_attr_t* attr, size_t size);

/* Calls sched_yield. @returns its result. @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thrd_yield(void);

/* Gives later threads of create_thread_nopreempt_raw, and the workers of a later pool, stacks of
 * KESA_THREAD_SMALL_STACK bytes. This cannot be undone.
 * @returns 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_set_instant_map_flag(void);

/* Reads the instant-map flag. @returns g_siProcMapFlag. @safety MT-Safe, AS-Safe */
TIRN_API int kesa_get_instant_map_flag(void);

/* Reads the calling thread's record. @returns the record, or NULL. @safety MT-Safe, AS-Safe */
TIRN_API struct kesa_thread_s* kesa_thrd_currentthreadinfo(void);

/* Finds the living thread with this kernel id. Its record stays until kesa_thrd_putthreadinfo, even if the thread
 * ends meanwhile.
 * @returns the record, or NULL.
 * @safety MT-Safe, AS-Unsafe heap (through kesa_thrd_putthreadinfo) */
TIRN_API struct kesa_thread_s* kesa_thrd_getthreadinfobytid(uint32_t tid);

/* Drops a reference to a record. Frees a record that is not in the table. Does nothing for NULL.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API void kesa_thrd_putthreadinfo(struct kesa_thread_s* record);

/* Adopts the calling thread if it was not started here: gives it a record, a signal stack and strategy 0.
 * @returns 0, also if the thread has a record already; -1 if no record can be made.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_thrd_setcurthreadinfo(void);

/* Ends what kesa_thrd_setcurthreadinfo began. An adopted thread must call it before it ends.
 * @returns 0, or -1 if the thread has no record.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_thrd_clearcurthreadinfo(void);

/* Sets up what threads need. Each function that makes a thread calls it first.
 * @returns 0.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API int kesa_thrd_module_init(void);

/* Prints the living threads of the table, each on a text line of its own. The last four arguments are not used. Does
 * nothing if `print` is NULL. No thread's record is held while `print` runs.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API void kesa_thrd_list(kesa_print_fn print, uint64_t a, uint64_t b, uint64_t c, uint64_t d);

/* Names the calling thread, in its record and in the kernel. The name is cut at 15 characters. A thread without a
 * record keeps its name.
 * @returns 0; failures are logged.
 * @safety MT-Safe locale, AS-Unsafe heap */
TIRN_API int kesa_thrd_setname(const char* format, ...) TIRN_PRINTF(1, 2);

/* Reads the calling thread's name. @returns the name, or NULL without a record. @safety MT-Safe, AS-Safe */
TIRN_API const char* kesa_thrd_getname(void);

/* Reads the kernel's id of the calling thread: from its record if it has one, else by a system call.
 * @returns the id.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint32_t kesa_thread_get_knl_tid(void);

/* Fills this thread's cache of the process id. Call it in the child after a fork as well.
 * @returns 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thrd_setpid_accl(void);

/* Reads the process id from this thread's cache. @returns the id. @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thrd_getpid_accl(void);

/* Fills this thread's cache of its pthread_t. @returns 0. @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thrd_settid_accl(void);

/* Reads this thread's pthread_t from its cache. @returns the pthread_t. @safety MT-Safe, AS-Safe */
TIRN_API uint64_t kesa_thrd_gettid_accl(void);

/* Reads the CPU that this thread claims to be on, or asks the system if it claims none.
 * @returns the CPU's number, or -1 if the system does not know it.
 * @safety MT-Safe, AS-Safe */
TIRN_API int smp_processor_id(void);

/* Stores my_core. @safety MT-Safe, AS-Safe */
TIRN_API void kesa_thrd_core_set(int core);

/* Stores my_numa. @safety MT-Safe, AS-Safe */
TIRN_API void kesa_thrd_numaId_set(int id);

/* Reads my_numa. @returns its value. @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thrd_numaId_get(void);

/* The execution context in the calling thread's record. Without a record these functions do nothing and return 0. */

/* Makes the thread iod thread `id` from now on. @returns 0. @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thread_run_in_iod_context_init(uint32_t id);

/* Tests whether the thread is in an iod context. @returns 1 if it is, 0 if not. @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thread_run_in_iod_context_check(void);

/* Tests whether the thread is in an irq context. @returns 1 if it is, 0 if not. @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thread_run_in_irq_context_check(void);

/* Reads the iod thread id. @returns the id, KESA_THREAD_NO_IOD_ID until one is given. @safety MT-Safe, AS-Safe */
TIRN_API uint32_t kesa_thread_iod_thread_id_get(void);

/* Stores the context in `*saved` and enters an irq context. @returns 0. @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thread_run_in_irq_context_save(uint32_t* saved);

/* Goes back to a saved context. @returns 0. @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thread_run_in_irq_context_restore(uint32_t saved);

/* Stores in `*start` and `*end` the bounds of the stack that the system made for the calling thread.
 * @returns 0, or -1 if they are not known.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thrd_getosstack(uint64_t* start, uint64_t* end);

/* Stores in `*start` and `*end` the bounds of the calling thread's signal stack.
 * @returns 0, or -1 if it has none.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thrd_getsigstack(uint64_t* start, uint64_t* end);

/* Does the same as kesa_thrd_getosstack for the living thread with this kernel id.
 * @returns 0, or -1 if there is no such thread or its bounds are not known.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_thread_get_specific_stack(uint32_t tid, uint64_t* start, uint64_t* end);

/* Registers the functions for stacks of lightweight contexts. Another thread may meanwhile see one new and one old.
 * @returns 0, or -1 for NULL.
 * @safety MT-Safe, AS-Safe */
TIRN_API int register_lwt_stack_ops(const struct kesa_lwt_stack_ops* ops);

/* Removes both functions. @returns 0. @safety MT-Safe, AS-Safe */
TIRN_API int unregister_lwt_stack_ops(void);

/* Asks the registered function whether an address lies on the stack of a lightweight context.
 * @returns its answer, 0 for yes; -1 if no function is registered.
 * @safety MT-Safe, AS-Safe (as the registered function) */
TIRN_API int kesa_thrd_islwtstack(uint64_t sp);

/* Asks the registered function for the bounds of that stack.
 * @returns its result, 0 on success; -1 if none is registered.
 * @safety MT-Safe, AS-Safe (as the registered function) */
TIRN_API int kesa_thrd_getlwtstack(uint64_t sp, uint64_t* start, uint64_t* end);

/* Reads the size that a stack of unknown kind is assumed to have.
 * @returns the bytes; 4096 until they are set.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint64_t kesa_thrd_getunknownstacksize(void);

/* Sets that size. A walk of such a stack may read all of these bytes. @safety MT-Safe, AS-Safe */
TIRN_API void kesa_thrd_setunknownstacksize(uint64_t size);

/* Finds the stack of the calling thread on which an address lies, and stores its name and bounds. The name is
 * "LWT_STACK", "OS_STACK" (up to one page below its low bound as well), "SIG_STACK", or "UNKNOWN_STACK" for an
 * address at most 8192 bytes above this call's own frame. If the address lies on none of them, the name is
 * "INVALID_STACK" or "INVALID_LWT_STACK" and the bounds stay as they were.
 * @returns 0; -1 for an address on none of them, and for a NULL `name`.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thrd_getcurrentstack(uint64_t sp, uint64_t* start, uint64_t* end, const char** name);

/* Stores return addresses of the calling functions, found by their frame pointers: `count` entries after the first
 * `skip` frames. An entry is 0 once the chain of frames has left the stack.
 * @returns 0, or -1 if the stack is not known.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thrd_backtrace(uint64_t* out, uint32_t count, uint32_t skip);

/* Binding to CPUs. Sets have 1024 bits; kesa_thrd_setbindcpu reads only the part for the configured CPUs. */

/* Binds a thread to the CPUs of a set. An empty set changes nothing.
 * @returns 0, or -1 if the system refuses, which is logged.
 * @safety MT-Safe race:set, AS-Unsafe heap */
TIRN_API int kesa_thrd_setbindcpu(pthread_t thread, const cpu_set_t* set);

/* Stores in `*set` the CPUs that a thread is bound to.
 * @returns 0, or -1 if the system refuses, which is logged: the set is then empty.
 * @safety MT-Safe race:set, AS-Unsafe heap */
TIRN_API int kesa_thrd_getbindcpu(pthread_t thread, cpu_set_t* set);

/* Stores in `*set` the CPUs that the thread with this kernel id is bound to; 0 is the calling thread.
 * @returns a result as kesa_thrd_getbindcpu does.
 * @safety MT-Safe race:set, AS-Unsafe heap */
TIRN_API int kesa_thrd_getbindcpu_bypid(pid_t pid, cpu_set_t* set);

/* Binds the calling thread to all configured CPUs. @returns 0, or -1. @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_thrd_bindAllCfgCpu(void);

/* Copies the process's name as of the first call, at most len - 1 characters.
 * @returns 0; -1 if the name cannot be read (a later call tries again) or copied.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_get_process_name(char* buf, uint32_t len);

/* Copies the file name of the process's program as of the first call, at most min(len, 32) - 1 characters.
 * @returns 0; -1 for NULL, and if the name cannot be read (a later call tries again) or copied.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_get_process_exe_name(char* buf, uint32_t len);

/* Asks the kernel side to print a thread's status. @returns 0. @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_thrd_getstatus(uint32_t tid);

/* Asks the kernel side to print the stack of what runs on a CPU. @returns 0. @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_thrd_dump_cpu_stack_knl(uint32_t cpu);

/* Asks the kernel side to print the stack of a CPU's current thread. @returns 0, or -1. @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thrd_dump_cpu_stack(uint32_t cpu);

/* Asks the kernel side to print the stack of a thread that does not run.
 * @returns its result.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_thrd_dump_thread_stack_if_not_running(uint32_t tid);

/* A number that all processes of one user on a node share, in a shared cell. */

/* Stores `value` as the number.
 * @returns 0, or -1 if the shared cell cannot be made.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_thread_watch_add(uint32_t value);

/* Stores 0. @returns 0. @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_thread_watch_del(void);

/* Reads the number.
 * @returns the number; 0 if none was ever stored, or if the shared cell cannot be made.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API uint32_t kesa_thread_watch_get(void);

TIRN_EXTERN_C_END

#endif
