/*
 * Files: the system's calls with a check of their pointers, a reader of lines that leaves the descriptor exactly behind
 * what it returned, commands on files, a copy, record locks, a walk through a folder, and the dynamic loader.
 *
 * The checked calls of the system, but for kesa_close, are cancellation points where the system's are; descriptors of a
 * thread that is cancelled there stay open. Nothing else but kesa_readline is one.
 */
#ifndef TIRN_FILEOPS_H
#define TIRN_FILEOPS_H

#include <sys/stat.h>
#include <sys/types.h>
#include <sys/vfs.h>

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* access; -1 for a NULL path, which is logged.
 * @safety MT-Safe, AS-Unsafe lock (for a NULL path) */
TIRN_API int kesa_access(const char* path, int mode);

/* open, a cancellation point; -1 for a NULL path, which is logged.
 * @safety MT-Safe, AS-Unsafe lock (for a NULL path) */
TIRN_API int kesa_open(const char* path, int flags, mode_t mode);

/* read, a cancellation point; -1 for a NULL buffer, which is logged.
 * @safety MT-Safe, AS-Unsafe lock (for a NULL buffer) */
TIRN_API ssize_t kesa_read(int fd, void* buffer, size_t size);

/* write, a cancellation point; -1 for a NULL buffer, which is logged.
 * @safety MT-Safe, AS-Unsafe lock (for a NULL buffer) */
TIRN_API ssize_t kesa_write(int fd, const void* buffer, size_t size);

/* lseek. @safety MT-Safe, AS-Safe */
TIRN_API off_t kesa_lseek(int fd, off_t offset, int whence);

/* fsync, a cancellation point. @safety MT-Safe, AS-Safe */
TIRN_API int kesa_sync(int fd);

/* close, which is no cancellation point here: the descriptor is closed for sure. @safety MT-Safe, AS-Safe */
TIRN_API int kesa_close(int fd);

/* stat; -1 for a NULL path, which is logged.
 * @safety MT-Safe, AS-Unsafe lock (for a NULL path) */
TIRN_API int kesa_stat(const char* path, struct stat* buffer);

/* statfs; -1 for a NULL path or buffer, which is logged.
 * @safety MT-Safe, AS-Unsafe lock (for a NULL pointer) */
TIRN_API int kesa_statfs(const char* path, struct statfs* buffer);

/*
 * Reads a line into `buffer`, with its line feed (if it has one) and a NUL behind it; carriage returns are dropped
 * wherever they stand. What would not fit in size - 1 bytes comes back in pieces. The result is `buffer`, or NULL if
 * nothing was read: end of file, a failure, a `size` below 2 or a NULL buffer. A failure in the middle of a line ends
 * it like the end of the file.
 * The descriptor stands exactly behind what was returned. That costs a system call a byte, except on a file of a file
 * system, where it costs about three a line. errno tells of a read that failed and is kept otherwise.
 * On other files than those it is a cancellation point: the bytes taken so far stand in `buffer`, without the NUL.
 * @safety MT-Safe race:fd, AS-Safe
 */
TIRN_API char* kesa_readline(int fd, char* buffer, int size);

/*
 * Commands on files, each a line for the shell (tirn/str.h). Paths are not quoted: one with a blank is two words. Names
 * must never come from outside: the screen lets options, blanks, tabs and patterns pass, and tar's options run commands
 * of their own. A path, with its terminator, fits KESA_FILE_PATH_SIZE bytes. None is a cancellation point. Results,
 * with a line in the log for each but 0: the raw wait status, KESA_COMMAND_REFUSED for a path with special characters,
 * -22 for a NULL path, -36 for one that is too long, -12 without memory.
 */
#define KESA_FILE_PATH_SIZE 1024

/* rm -rf. @safety MT-Safe, AS-Unsafe heap lock */
TIRN_API int kesa_cmd_rm(const char* file);

/* cp -af. @safety MT-Safe, AS-Unsafe heap lock */
TIRN_API int kesa_cmd_cp(const char* src, const char* dst);

/* mv. @safety MT-Safe, AS-Unsafe heap lock */
TIRN_API int kesa_cmd_mv(const char* src, const char* dst);

/* touch. @safety MT-Safe, AS-Unsafe heap lock */
TIRN_API int kesa_cmd_touch(const char* file);

/* mkdir -p, with its output thrown away; -22 for a path with special characters.
 * @safety MT-Safe, AS-Unsafe heap lock */
TIRN_API int kesa_cmd_mkdir(const char* file);

/*
 * Packs `dir_or_src` into the compressed archive `file`; with `extract` other than 0 unpacks the archive into the
 * folder `dir_or_src`, for which NULL passes as an empty word: tar decides what to make of it.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int kesa_cmd_tar(const char* file, const char* dir_or_src, int extract);

/*
 * Copies the bytes of a file into a new file of mode 0600, or over an old one, which is emptied first (the source too
 * where both are the same). 0; -22 for a NULL path; -125 where a file cannot be opened, read or written. The first
 * read or write of less than 128 bytes ends the copy with 0: from a pipe, or on a disk that fills up, it may be short.
 * No cancellation point.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API int kesa_copy(const char* src, const char* dst);

enum kesa_file_lock_mode {
  KESA_FILE_LOCK_READ = 0, /* waits, as any other value does */
  KESA_FILE_LOCK_WRITE = 1,
  KESA_FILE_LOCK_TRY_READ = 2,
  KESA_FILE_LOCK_TRY_WRITE = 3,
};

/* A range of a file, counted from its start; a `len` of 0 reaches to any end. */
struct kesa_file_lock {
  uint64_t mode;
  int64_t start;
  int64_t len;
};

/*
 * Locks the range against other processes (fcntl's record locks: the process loses them as soon as it closes any
 * descriptor of the file, and its children do not get them). A wait goes on through signals; it is
 * a cancellation point, and the range is not locked then. 0; -1 with errno; -22 for NULL.
 * @safety MT-Safe, AS-Unsafe lock (for a NULL pointer)
 */
TIRN_API int kesa_lockfile(int fd, const struct kesa_file_lock* lock);

/* Unlocks the range, whatever the mode says. 0; -1 with errno; -22 for NULL.
 * @safety MT-Safe, AS-Unsafe lock (for a NULL pointer) */
TIRN_API int kesa_unlockfile(int fd, const struct kesa_file_lock* lock);

/* Gets an entry of a folder: the name, good until it returns, and its length; the place of the entry behind it, the
 * inode and the type (DT_REG and its like). The result is ignored. */
typedef int (*kesa_readdir_fn)(void* ctx, const char* name, int name_length, int64_t offset, uint64_t inode,
                               unsigned type);

/*
 * Calls `callback` for each entry of the folder, "." and ".." among them, in no order. 0, also where an error cuts the
 * walk short; -1 where the folder cannot be opened, for a NULL path (logged), and without memory.
 * The thread is not cancelled before the walk is through, in the callback neither. The callback may end it
 * (pthread_exit): nothing is left open.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int kesa_readdir_new(const char* path, kesa_readdir_fn callback, void* ctx);

/*
 * dlopen; the loader takes this library for the caller (search paths). No cancellation point, nor is any code of the
 * object that runs meanwhile. The symbol table does not know yet what is loaded and unloaded here: its update joins
 * with the table.
 * @safety MT-Safe, AS-Unsafe heap lock dlopen
 */
TIRN_API void* kesa_dlopen(const char* path, int flags);

/* dlsym; NULL for a NULL handle, which RTLD_DEFAULT is too. Whom the loader takes for the caller is not settled
 * (RTLD_NEXT).
 * @safety MT-Safe, AS-Unsafe heap lock */
TIRN_API void* kesa_dlsym(void* handle, const char* name);

/* dlerror. @safety MT-Safe, AS-Unsafe heap */
TIRN_API char* kesa_dlerror(void);

/* dlclose; -1 for a NULL handle. No cancellation point.
 * @safety MT-Safe, AS-Unsafe heap lock dlopen */
TIRN_API int kesa_dlclose(void* handle);

TIRN_EXTERN_C_END

#endif
