/* A stamp that differs between this process and an earlier one of the same program, and mutexes by kind. */
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
 * Reads the stamp of this process: CLOCK_MONOTONIC_RAW at the first call. The function is exported as a weak symbol,
 * so a program may define its own.
 * @returns the stamp in nanoseconds, the same at every call; always 0 if the first call could not read the clock.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API uint64_t ps_get_version(void);

/*
 * Initialises a mutex of one of the kinds above.
 * @returns 0, or an error number as of pthread_mutex_init; -1 for another kind. A failure leaves the mutex as it was.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_mtx_init(pthread_mutex_t* mutex, int kind);

/* Calls pthread_mutex_destroy.
 * @returns its result.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_mtx_destroy(pthread_mutex_t* mutex);

TIRN_EXTERN_C_END

#endif
