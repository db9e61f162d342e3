/* The thread-once and thread-key calls of POSIX. A failure is logged, at error level. */
#ifndef TIRN_PERCPU_POSIX_H
#define TIRN_PERCPU_POSIX_H

#include <pthread.h>

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* Calls pthread_once, which runs `init` at the first call with `once`.
 * @returns 0, or an error number.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API int kesa_pthread_init_once(pthread_once_t* once, void (*init)(void));

/* Calls pthread_key_create, which makes a key with no value in any thread. When a thread that has a value ends,
 * `destructor` (NULL: none) gets the value.
 * @returns 0, or an error number.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_key_create(pthread_key_t* key, void (*destructor)(void* value));

/* Calls pthread_key_delete. No destructor runs.
 * @returns 0, or an error number.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_key_delete(pthread_key_t key);

/* Calls pthread_setspecific, which sets the value of `key` in this thread.
 * @returns 0, or an error number; -1 for a NULL value, which leaves the key as it was.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_key_setspecific(pthread_key_t key, const void* value);

/* Calls pthread_getspecific. NULL is logged as a failure each time, even if the thread has no value yet.
 * @returns the value of `key` in this thread, or NULL.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API void* kesa_key_getspecific(pthread_key_t key);

TIRN_EXTERN_C_END

#endif
