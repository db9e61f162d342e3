/*
 * Files: the system's calls with a check of their pointers, and a reader of lines that leaves the descriptor exactly
 * behind what it returned.
 */
#ifndef TIRN_FILEOPS_H
#define TIRN_FILEOPS_H

#include <sys/stat.h>
#include <sys/types.h>
#include <sys/vfs.h>

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* access; -1 for a NULL path, which is logged.
 * @safety MT-Safe, AS-Unsafe heap (for a NULL path) */
TIRN_API int kesa_access(const char* path, int mode);

/* open; -1 for a NULL path, which is logged.
 * @safety MT-Safe, AS-Unsafe heap (for a NULL path) */
TIRN_API int kesa_open(const char* path, int flags, mode_t mode);

/* read; -1 for a NULL buffer, which is logged.
 * @safety MT-Safe, AS-Unsafe heap (for a NULL buffer) */
TIRN_API ssize_t kesa_read(int fd, void* buffer, size_t size);

/* write; -1 for a NULL buffer, which is logged.
 * @safety MT-Safe, AS-Unsafe heap (for a NULL buffer) */
TIRN_API ssize_t kesa_write(int fd, const void* buffer, size_t size);

/* lseek. @safety MT-Safe, AS-Safe */
TIRN_API off_t kesa_lseek(int fd, off_t offset, int whence);

/* fsync. @safety MT-Safe, AS-Safe */
TIRN_API int kesa_sync(int fd);

/* close. @safety MT-Safe, AS-Safe */
TIRN_API int kesa_close(int fd);

/* stat; -1 for a NULL path, which is logged.
 * @safety MT-Safe, AS-Unsafe heap (for a NULL path) */
TIRN_API int kesa_stat(const char* path, struct stat* buffer);

/* statfs; -1 for a NULL path or buffer, which is logged.
 * @safety MT-Safe, AS-Unsafe heap (for a NULL pointer) */
TIRN_API int kesa_statfs(const char* path, struct statfs* buffer);

/*
 * Reads a line into `buffer`, with its line feed (if it has one) and a NUL behind it; carriage returns are dropped
 * wherever they stand. What would not fit in size - 1 bytes comes back in pieces. The result is `buffer`, or NULL if
 * nothing was read: end of file, a failure, a `size` below 2 or a NULL buffer. A failure in the middle of a line ends
 * it like the end of the file.
 * The descriptor stands exactly behind what was returned. That costs a system call a byte, except on a file of a file
 * system, where it costs about three a line. errno tells of a read that failed and is kept otherwise.
 * @safety MT-Safe race:fd, AS-Safe
 */
TIRN_API char* kesa_readline(int fd, char* buffer, int size);

TIRN_EXTERN_C_END

#endif
