/*
 * Affinity levels: sets of CPUs with a name, from the kernel's configuration, to which the threads of certain
 * processes are bound.
 */
#ifndef TIRN_AFFINITY_H
#define TIRN_AFFINITY_H

#include <pthread.h>
#include <sched.h>

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

#define KESA_AFFINITY_LEVEL_NAME_SIZE 64 /* including the terminator */

struct kesa_affinity_level {
  char affinityLevelName[KESA_AFFINITY_LEVEL_NAME_SIZE];
  cpu_set_t cpus;
};

/*
 * The only level. It belongs to processes with the name app_data and is empty in all others. No lock guards it, so it
 * must be read at start, before other threads use it ("race:level" below).
 */
TIRN_API extern struct kesa_affinity_level g_affinityLevel_1;

/*
 * Reads the level of the process. Does nothing if an earlier call succeeded.
 * @returns 0, also if the process has no level or its level cannot be read; -1 if its name cannot be read.
 * @safety MT-Safe race:level, AS-Unsafe lock heap
 */
TIRN_API int kesa_affinity_init(void);

/*
 * Does nothing.
 * @returns 0.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_affinity_exit(void);

/*
 * Fills a record from the item `level` of the section THREAD_CPU_AFFINITY_LIST of the kernel's configuration. The
 * name in the record is cut at 63 characters.
 * @returns 0; -1 if the item cannot be read, and then the set is empty; -1 for a NULL pointer.
 * @safety MT-Safe race:record, AS-Unsafe heap
 */
TIRN_API int kesa_parse_affinity_level(const char* level, struct kesa_affinity_level* record);

/*
 * Adds the CPUs of a comma-separated list of decimal numbers to a record. The commas in `text` are overwritten.
 * Numbers from 1024 on are ignored, and so is everything that is not a number. Does nothing for a NULL pointer.
 * @returns 0.
 * @safety MT-Safe race:text race:record, AS-Unsafe heap
 */
TIRN_API int kesa_parse_affinity_value(char* text, struct kesa_affinity_level* record);

/*
 * Finds a level by its name. As long as the level has not been read, its name is empty.
 * @returns the level, or NULL if none has this name.
 * @safety MT-Safe race:level, AS-Safe
 */
TIRN_API struct kesa_affinity_level* kesa_get_affinity_entity(const char* level);

/*
 * Binds a thread to the CPUs of a level. Does nothing if there is no such level or if its set is empty.
 * @returns 0, or -1 for a NULL level or if the thread cannot be bound.
 * @safety MT-Safe race:level, AS-Unsafe heap
 */
TIRN_API int kesa_set_thread_affinity(pthread_t thread, const char* level);

TIRN_EXTERN_C_END

#endif
