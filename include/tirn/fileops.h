/*
 * Files: system calls with a check of their pointers, a reader of text lines that leaves the descriptor directly
 * after what it returned, commands on files, copying, record locks, a walk through a folder, and the dynamic loader.
 *
 * The checked system calls are cancellation points where the system's own are, except kesa_close; if a thread is
 * cancelled there, its descriptors stay open. kesa_readline and kesa_lockfile can be cancellation points too, as
 * their comments say. No other function here is one.
 */
#ifndef TIRN_FILEOPS_H
#define TIRN_FILEOPS_H

#include <sys/stat.h>
#include <sys/types.h>
#include <sys/vfs.h>

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/*
 * Calls access.
 * @returns its result, or -1 for a NULL path, which is logged.
 * @safety MT-Safe, AS-Unsafe lock (for a NULL path)
 */
TIRN_API int kesa_access(const char* path, int mode);

/*
 * Calls open, which is a cancellation point.
 * @returns its result, or -1 for a NULL path, which is logged.
 * @safety MT-Safe, AS-Unsafe lock (for a NULL path)
 */
TIRN_API int kesa_open(const char* path, int flags, mode_t mode);

/*
 * Calls read, which is a cancellation point.
 * @returns its result, or -1 for a NULL buffer, which is logged.
 * @safety MT-Safe, AS-Unsafe lock (for a NULL buffer)
 */
TIRN_API ssize_t kesa_read(int fd, void* buffer, size_t size);

/*
 * Calls write, which is a cancellation point.
 * @returns its result, or -1 for a NULL buffer, which is logged.
 * @safety MT-Safe, AS-Unsafe lock (for a NULL buffer)
 */
TIRN_API ssize_t kesa_write(int fd, const void* buffer, size_t size);

/*
 * Calls lseek.
 * @returns its result.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API off_t kesa_lseek(int fd, off_t offset, int whence);

/*
 * Calls fsync, which is a cancellation point.
 * @returns its result.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_sync(int fd);

/*
 * Calls close, which is no cancellation point here: the descriptor is always closed.
 * @returns its result.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_close(int fd);

/*
 * Calls stat.
 * @returns its result, or -1 for a NULL path, which is logged.
 * @safety MT-Safe, AS-Unsafe lock (for a NULL path)
 */
TIRN_API int kesa_stat(const char* path, struct stat* buffer);

/*
 * Calls statfs.
 * @returns its result, or -1 for a NULL path or buffer, which is logged.
 * @safety MT-Safe, AS-Unsafe lock (for a NULL pointer)
 */
TIRN_API int kesa_statfs(const char* path, struct statfs* buffer);

/*
 * Reads a text line into `buffer`, including its line feed if it has one, and appends a NUL. All carriage returns are
 * dropped. A text line that does not fit in size - 1 bytes is returned in pieces, one a call. A read error in the
 * middle of a text line ends it as the end of the file does. errno is set if a read fails, and unchanged otherwise.
 * The descriptor is left directly after the bytes that were returned. This takes one system call for each byte, but
 * about three for a whole text line of a regular file that has blocks on a file system. On any other file, such as a
 * pipe, a socket or a file generated on read, the function is a cancellation point; the bytes read so far are then in
 * `buffer`, without the NUL.
 * @returns `buffer`, or NULL if nothing was read: end of file, read error, a `size` below 2, or a NULL buffer.
 * @safety MT-Safe race:fd, AS-Safe
 */
TIRN_API char* kesa_readline(int fd, char* buffer, int size);

/*
 * Commands on files. Each runs one command line in a shell (tirn/str.h). Paths are not quoted: one with a blank
 * becomes two arguments. Never pass names from outside: the check for special characters does not stop options,
 * blanks, tabs and patterns, and some options of tar run commands. A path, with its terminator, must fit in
 * KESA_FILE_PATH_SIZE bytes. None of these is a cancellation point.
 *
 * Each returns the raw wait status of the command; KESA_COMMAND_REFUSED for a path with special characters; -1 if the
 * shell could not be started or waited for; -22 for a NULL path; -36 for a path that is too long; -12 if there is no
 * memory. Every result but 0 is logged.
 */
#define KESA_FILE_PATH_SIZE 1024

/*
 * Runs `rm -rf`.
 * @returns a result as listed at KESA_FILE_PATH_SIZE.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int kesa_cmd_rm(const char* file);

/*
 * Runs `cp -af`.
 * @returns a result as listed at KESA_FILE_PATH_SIZE.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int kesa_cmd_cp(const char* src, const char* dst);

/*
 * Runs `mv`.
 * @returns a result as listed at KESA_FILE_PATH_SIZE.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int kesa_cmd_mv(const char* src, const char* dst);

/*
 * Runs `touch`.
 * @returns a result as listed at KESA_FILE_PATH_SIZE.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int kesa_cmd_touch(const char* file);

/*
 * Runs `mkdir -p` and discards its output.
 * @returns a result as listed at KESA_FILE_PATH_SIZE, but -22 for a path with special characters.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int kesa_cmd_mkdir(const char* file);

/*
 * Packs `dir_or_src` into the compressed archive `file`. If `extract` is not 0, unpacks the archive into the folder
 * `dir_or_src` instead; if that is NULL, the command line names no folder, and tar decides what to make of it.
 * @returns a result as listed at KESA_FILE_PATH_SIZE.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int kesa_cmd_tar(const char* file, const char* dir_or_src, int extract);

/*
 * Copies the bytes of a file into a new file of mode 0600, or over an existing one. That one is emptied first, even
 * if it is the source itself. The first read or write of less than 128 bytes ends the copy with 0, so a copy from a
 * pipe, or to a disk that fills up, may be incomplete. This is no cancellation point.
 * @returns 0; -22 for a NULL path; -125 if a file cannot be opened, read or written.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API int kesa_copy(const char* src, const char* dst);

enum kesa_file_lock_mode {
  KESA_FILE_LOCK_READ = 0, /* waits; so does any value that is not listed here */
  KESA_FILE_LOCK_WRITE = 1,
  KESA_FILE_LOCK_TRY_READ = 2,
  KESA_FILE_LOCK_TRY_WRITE = 3,
};

/* A range of a file, counted from its start. A `len` of 0 means up to the end, wherever that is. */
struct kesa_file_lock {
  uint64_t mode;
  int64_t start;
  int64_t len;
};

/*
 * Locks the range against other processes with the record locks of fcntl: the process loses them as soon as it closes
 * any descriptor of the file, and its children do not inherit them. A wait continues after signals. The wait is a
 * cancellation point; the range is not locked then.
 * @returns 0; -1 with errno set; -22 for NULL, which is logged.
 * @safety MT-Safe, AS-Unsafe lock (for a NULL pointer)
 */
TIRN_API int kesa_lockfile(int fd, const struct kesa_file_lock* lock);

/*
 * Unlocks the range; the mode is ignored.
 * @returns 0; -1 with errno set; -22 for NULL, which is logged.
 * @safety MT-Safe, AS-Unsafe lock (for a NULL pointer)
 */
TIRN_API int kesa_unlockfile(int fd, const struct kesa_file_lock* lock);

/*
 * Receives one entry of a folder: the name, which is valid until the callback returns, and its length; the offset of
 * the next entry; the inode and the type (DT_REG and the like). The result is ignored.
 */
typedef int (*kesa_readdir_fn)(void* ctx, const char* name, int name_length, int64_t offset, uint64_t inode,
                               unsigned type);

/*
 * Calls `callback` for each entry of the folder, including "." and "..", in no particular order. The thread is not
 * cancelled before the walk has ended, not even in the callback. The callback may end the thread with pthread_exit:
 * nothing is left open.
 * @returns 0, also if an error ends the walk early; -1 if the folder cannot be opened, for a NULL path (which is
 * logged), or if there is no memory.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int kesa_readdir_new(const char* path, kesa_readdir_fn callback, void* ctx);

/*
 * Calls dlopen. The loader takes this library as the caller, which matters for search paths. Neither the call nor the
 * code of the object that runs meanwhile is a cancellation point. The symbol table is not yet updated with the
 * objects that are loaded and unloaded here.
 * @returns its result.
 * @safety MT-Safe, AS-Unsafe heap lock dlopen
 */
TIRN_API void* kesa_dlopen(const char* path, int flags);

/*
 * Calls dlsym. Do not pass RTLD_NEXT: it is undefined which object the loader takes as the caller.
 * @returns its result, or NULL for a NULL handle; RTLD_DEFAULT is such a handle.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API void* kesa_dlsym(void* handle, const char* name);

/*
 * Calls dlerror.
 * @returns its result.
 * @safety MT-Safe, AS-Unsafe heap
 */
TIRN_API char* kesa_dlerror(void);

/*
 * Calls dlclose, which is no cancellation point here.
 * @returns its result, or -1 for a NULL handle.
 * @safety MT-Safe, AS-Unsafe heap lock dlopen
 */
TIRN_API int kesa_dlclose(void* handle);

TIRN_EXTERN_C_END

#endif
