/* The thread-once and thread-key calls of POSIX, with a line in the log, at error level, where they fail. */
#ifndef TIRN_PERCPU_POSIX_H
#define TIRN_PERCPU_POSIX_H

#include <pthread.h>

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* pthread_once: runs `init` at the first call with `once`. 0, or an error number.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API int kesa_pthread_init_once(pthread_once_t* once, void (*init)(void));

/* pthread_key_create: a key with no value in any thread; at a thread's end `destructor` (NULL: none) gets its value.
 * 0, or an error number.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_key_create(pthread_key_t* key, void (*destructor)(void* value));

/* pthread_key_delete: no destructor runs. 0, or an error number.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_key_delete(pthread_key_t key);

/* pthread_setspecific: the value of `key` in this thread. 0, or an error number; -1, with the key as it was, for a
 * NULL value.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_key_setspecific(pthread_key_t key, const void* value);

/* pthread_getspecific: the value of `key` in this thread, or NULL. NULL is told as a failure each time, also where the
 * thread has no value yet.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API void* kesa_key_getspecific(pthread_key_t key);

TIRN_EXTERN_C_END

#endif
