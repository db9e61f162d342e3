/*
 * Affinity levels: sets of CPUs that the kernel's configuration gives, by name, to threads of certain processes.
 */
#ifndef TIRN_AFFINITY_H
#define TIRN_AFFINITY_H

#include <pthread.h>
#include <sched.h>

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

#define KESA_AFFINITY_LEVEL_NAME_SIZE 64 /* with the terminator */

struct kesa_affinity_level {
  char affinityLevelName[KESA_AFFINITY_LEVEL_NAME_SIZE];
  cpu_set_t cpus;
};

/* The one level that there is, of processes called app_data; empty in all others. No lock guards it: it is read at
 * start, before threads want it ("race:level" below). */
TIRN_API extern struct kesa_affinity_level g_affinityLevel_1;

/* Reads the process's level, once. 0, also where the process has none; -1 where its name or its level cannot be read:
 * a later call tries again.
 * @safety MT-Safe race:level, AS-Unsafe lock heap */
TIRN_API int kesa_affinity_init(void);

/* Nothing. Always 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_affinity_exit(void);

/* Fills the record from an item of the section THREAD_CPU_AFFINITY_LIST of the kernel's configuration; the name is cut
 * at 63 characters. 0; -1 for NULL and where there is no such item, and then the set is empty.
 * @safety MT-Safe race:record, AS-Unsafe heap */
TIRN_API int kesa_parse_affinity_level(const char* level, struct kesa_affinity_level* record);

/* Adds the CPUs of a comma-separated list of decimal numbers, which is taken apart in place; numbers from 1024 on, and
 * what is no number, are passed over. Nothing for NULL. Always 0.
 * @safety MT-Safe race:text race:record, AS-Unsafe heap */
TIRN_API int kesa_parse_affinity_value(char* text, struct kesa_affinity_level* record);

/* The level of this name, or NULL. An empty name finds a level that was not read.
 * @safety MT-Safe race:level, AS-Safe */
TIRN_API struct kesa_affinity_level* kesa_get_affinity_entity(const char* level);

/* Binds a thread to a level's CPUs; nothing where there is no such level, or its set is empty. 0; -1 for a NULL level
 * and where the thread cannot be bound.
 * @safety MT-Safe race:level, AS-Unsafe heap */
TIRN_API int kesa_set_thread_affinity(pthread_t thread, const char* level);

TIRN_EXTERN_C_END

#endif
