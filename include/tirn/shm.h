/*
 * Shared memory: named POSIX objects, and System V segments. There is no unmapping: a mapping lives as long as its
 * process.
 *
 * A name below /dev/shm is anybody's to take first: whoever has made the object, or may write to it, can also truncate
 * it, and a later access of its users gets SIGBUS. Nothing here is a cancellation point.
 */
#ifndef TIRN_SHM_H
#define TIRN_SHM_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* kesa_shm_create_ext with O_RDWR | O_CREAT and mode 0600. The mapping, or NULL; every reason but EEXIST is logged.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API void* kesa_shm_create(const char* name, uint32_t size);

/*
 * Opens or makes the object `name` (shm_open's flags and mode), gives it `size` bytes, whose pages are made now where
 * the file system can, and maps them with the access that the flags name (the system maps no O_WRONLY object). Every
 * call sets the object's size: all users are to pass the same.
 * NULL: a NULL name; an object that could not be opened (errno tells; EEXIST under O_EXCL is no fault and not
 * logged); no room (found here, not at a later store); no mapping.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API void* kesa_shm_create_ext(const char* name, int32_t flags, uint32_t mode, uint32_t size);

/* Removes the object's name; mappings stay. 0, or -1.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API int kesa_shm_destroy(const char* name);

/* shmget. @safety MT-Safe, AS-Safe */
TIRN_API int kesa_shmget_ex(int32_t key, size_t size, int flags);

/* shmget, making the segment where it is missing, readable and writable for its owner. @safety MT-Safe, AS-Safe */
TIRN_API int kesa_shmget(int32_t key, size_t size);

/* Maps a System V segment at an address of the system's choice; NULL on failure. @safety MT-Safe, AS-Safe */
TIRN_API void* kesa_shmat(int id);

/* Marks a segment for removal. 0, or -1. @safety MT-Safe, AS-Safe */
TIRN_API int kesa_shmdel(int id);

TIRN_EXTERN_C_END

#endif
