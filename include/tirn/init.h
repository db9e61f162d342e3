/*
 * Start-up and tear-down, access to the log library, and the names of modules.
 *
 * A process calls kesa_Init once, before anything that needs the clock, the CPU tables or worker threads. Nothing
 * happens when the library is loaded.
 *
 * A child forked from a threaded process can use the library, but the listener, the pools and the registered threads
 * of its parent do not run in it. A daemon therefore daemonises first and calls kesa_Init afterwards.
 */
#ifndef TIRN_INIT_H
#define TIRN_INIT_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* The record of a content callback of the log library; hurn.h defines it. */
struct hurn_content_record;

/*
 * Starts the library: runs the start-up steps of all modules in one fixed order, under one mutex. If a required step
 * fails, what earlier steps did stays in effect, and a later call runs all steps again.
 * @returns 0 when start-up is done, or if it was done before or the start-up mutex cannot be taken; all ones if a
 * required step fails, which is logged.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API uint32_t kesa_Init(void);

/*
 * Ends what kesa_Init started, as far as that can be ended; clocks, timers, handlers and tables stay until the
 * process ends. kesa_Init may be called again afterwards.
 * @returns 0 if there was nothing to do; else the result of unlocking the start-up mutex, or the error of locking it.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API int kesa_destory(void);

/*
 * Takes one backtrace, so that the C library loads its unwinder now and not in a signal handler.
 * @returns the number of frames found, at most 3.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API int kesa_glibc_init(void);

/* Calls hurn_init: sets the program's name and the sink ("stderr", "syslog", "file:PATH[:BYTES[:KEEP]]").
 * @returns 0; -1, with the former name and sink kept, if `sink` has another form, if the file cannot be opened, or if
 * there is no memory.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API int kesa_log_init(const char* program, const char* sink);

/* Calls hurn_destroy: goes back to the default sink and program name.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API void kesa_log_destroy(void);

/* Calls hurn_loglevel_set: sets the level up to which a module's log lines are written (3, 4, 6 or 7).
 * @returns 0, or -1 for a module or level that does not exist.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_log_level_set(uint32_t module, uint32_t level);

/* Calls hurn_loglevel_get.
 * @returns the module's level, or -1 if there is no such module.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_log_level_get(uint32_t module);

/*
 * Limits a group of log lines ("error", "warning", "info", "debug", or a module's number in decimal) to `lines` log
 * lines in each window of `milliseconds`. A value of 0 for either lifts the limit.
 * @returns 0, or -1 if there is no such group.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_ratelimit_set(const char* group, uint32_t lines, uint32_t milliseconds);

/*
 * Gives the log library a callback that sees each log line. The record is copied. NULL stands for a record of zeros,
 * which removes the callback.
 * @returns 0.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_log_register_callback(const struct hurn_content_record* record);

/*
 * Builds the table of module names, once.
 * @returns 0, or the error of locking its mutex.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API int pid_init_names(void);

/*
 * Clears the table of module names, but only if it has not been built: names are still needed during and after
 * tear-down, so in a running process the call changes nothing.
 * @returns 0, or the error of locking its mutex.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API int pid_destroy_names(void);

/*
 * Looks up the name of a module.
 * @returns the name, never NULL: "NONE" if the id has none; for an id above 1023 the text "<n>" with the low 16 bits
 * of the id, in one buffer that all threads share.
 * @safety MT-Unsafe race:overflow (ids above 1023 only), AS-Unsafe lock (before the table is built)
 */
TIRN_API const char* kesa_pid_get_name(uint32_t id);

/*
 * Names a module. The pointer is kept, so the text must live as long as the process. An id above 1023 or a NULL name
 * is ignored.
 * @safety MT-Safe, AS-Unsafe lock (before the table is built)
 */
TIRN_API void kesa_pid_set_name(uint32_t id, const char* name);

TIRN_EXTERN_C_END

#endif
