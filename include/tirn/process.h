/* The stamp of this process incarnation, and mutexes by kind. */
#ifndef TIRN_PROCESS_H
#define TIRN_PROCESS_H

#include <pthread.h>

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* The kinds of kesa_mtx_init. */
enum kesa_mtx_kind {
  KESA_MTX_NORMAL = 0,
  KESA_MTX_ERRORCHECK = 1,
  KESA_MTX_RECURSIVE = 2,
};

/*
 * A stamp of this process incarnation: CLOCK_MONOTONIC_RAW in nanoseconds at the first call, the same at every
 * later call; 0 for good if the clock could not be read then. Exported as a weak symbol, so that a program may put its own in place.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API uint64_t ps_get_version(void);

/*
 * Initialises a mutex of one of the kinds above. The result of pthread_mutex_init; -1 for another kind, with
 * nothing touched.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_mtx_init(pthread_mutex_t* mutex, int kind);

/* pthread_mutex_destroy.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_mtx_destroy(pthread_mutex_t* mutex);

TIRN_EXTERN_C_END

#endif
