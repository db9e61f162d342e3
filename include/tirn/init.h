/*
 * Start-up and tear-down, the way to the log library, and the names of modules.
 *
 * A process calls kesa_Init once, before anything that needs the clock, the CPU tables or worker threads.
 * Nothing happens when the library is loaded.
 *
 * A child forked from a threaded process can use the library, but its parent's listener, pool and registered threads are
 * not in it. So a daemon daemonises first and calls kesa_Init afterwards.
 */
#ifndef TIRN_INIT_H
#define TIRN_INIT_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* The record of a content callback of the log library; hurn.h defines it. */
struct hurn_content_record;

/*
 * Brings the library up: the start-up steps of all modules in one fixed order, under one mutex.
 * 0: done, or done already (or the start-up mutex could not be taken). All ones: a step that start-up cannot
 * go without has failed; the log tells which. What earlier steps did stays in effect, and a later call runs all
 * steps again.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API uint32_t kesa_Init(void);

/*
 * Ends what kesa_Init started and what can be ended; clocks, timers, handlers and tables stay until the process
 * ends. kesa_Init may be called again afterwards. 0 if there was nothing to do, else the result of unlocking the
 * start-up mutex, or the error that locking it gave.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API int kesa_destory(void);

/*
 * Takes one backtrace, so that the C library loads its unwinder now and not in a signal handler.
 * Returns the number of frames found, at most 3.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API int kesa_glibc_init(void);

/* hurn_init: names the program and the sink ("stderr", "syslog", "file:PATH[:BYTES[:KEEP]]"). 0, or -1.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API int kesa_log_init(const char* program, const char* sink);

/* hurn_destroy: back to the default sink.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API void kesa_log_destroy(void);

/* hurn_loglevel_set: the level up to which a module's lines are wanted (3, 4, 6 or 7). 0, or -1.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_log_level_set(uint32_t module, uint32_t level);

/* hurn_loglevel_get: the level of a module, or -1 for a module that does not exist.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_log_level_get(uint32_t module);

/*
 * Limits a group of log lines ("error", "warning", "info", "debug", or a module's number in decimal) to `lines`
 * lines in each window of `milliseconds`; 0 for either lifts the limit. 0, or -1 for a group that does not exist.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_ratelimit_set(const char* group, uint32_t lines, uint32_t milliseconds);

/*
 * Gives the log library a callback that sees each line. The record is copied; NULL stands for a record of zeros,
 * which ends the callback. Always 0.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_log_register_callback(const struct hurn_content_record* record);

/*
 * Builds the table of module names, once. 0, or the error that locking its mutex gave.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API int pid_init_names(void);

/*
 * Clears the table of module names, but only while it has not been built: names are still wanted during and after
 * tear-down, so in a running process the call changes nothing. 0, or the error that locking the mutex gave.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API int pid_destroy_names(void);

/*
 * The name of a module, never NULL: "NONE" where the id has no name. For an id above 1023 the text "<n>" with the
 * low 16 bits of the id, in one buffer that all threads share.
 * @safety MT-Unsafe race:overflow (ids above 1023 only), AS-Unsafe lock (before the table is built)
 */
TIRN_API const char* kesa_pid_get_name(uint32_t id);

/*
 * Names a module. The pointer is kept: the text must live as long as the process. An id above 1023 or a NULL name
 * is ignored.
 * @safety MT-Safe, AS-Unsafe lock (before the table is built)
 */
TIRN_API void kesa_pid_set_name(uint32_t id, const char* name);

TIRN_EXTERN_C_END

#endif
