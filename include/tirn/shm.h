/*
 * Shared memory: named POSIX objects, and System V segments. There is no function to unmap them: a mapping lives as
 * long as its process.
 *
 * Any process may be the first to create a name below /dev/shm. A process that has created the object, or may write
 * to it, can also truncate it; the next access by another user then raises SIGBUS. Nothing here is a cancellation
 * point.
 */
#ifndef TIRN_SHM_H
#define TIRN_SHM_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/*
 * Calls kesa_shm_create_ext with O_RDWR | O_CREAT and mode 0600. Logs every failure, except if errno is EEXIST.
 * @returns the mapping, or NULL.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API void* kesa_shm_create(const char* name, uint32_t size);

/*
 * Opens or creates the object `name` (flags and mode are those of shm_open), gives it `size` bytes and maps them with
 * the access that the flags name; the system refuses to map an O_WRONLY object. The pages are allocated now if the
 * file system can do that, so a lack of room is found here and not at a later store. Every call that opens the object
 * for writing sets its size: all users must pass the same.
 * @returns the mapping, or NULL if the name is NULL, if the object cannot be opened (errno gives the reason, and
 * nothing is logged), if there is no room, or if the object cannot be mapped.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API void* kesa_shm_create_ext(const char* name, int32_t flags, uint32_t mode, uint32_t size);

/*
 * Removes the name of the object. Existing mappings stay valid.
 * @returns 0, or -1 on failure.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API int kesa_shm_destroy(const char* name);

/*
 * Calls shmget.
 * @returns its result.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_shmget_ex(int32_t key, size_t size, int flags);

/*
 * Calls shmget; creates the segment if it does not exist, readable and writable for its owner only.
 * @returns the result of shmget.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_shmget(int32_t key, size_t size);

/*
 * Maps a System V segment at an address that the system chooses.
 * @returns the mapping, or NULL on failure.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API void* kesa_shmat(int id);

/*
 * Marks a System V segment for removal.
 * @returns 0, or -1 on failure.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_shmdel(int id);

TIRN_EXTERN_C_END

#endif
