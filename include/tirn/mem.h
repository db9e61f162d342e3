/*
 * Tagged allocation: each block carries the id of the module that owns it, and the bytes of each module are counted.
 * Thin wrappers of the page calls are here too. Nothing here is a cancellation point.
 *
 * The kernel side provides the table of counts. The library asks for it at each use, until the kernel side answers.
 * No thread waits for another one that is asking: what is counted meanwhile, or by a callback during the call, is
 * added to the table once it is found. If the node offers no table, nothing is counted. A block that was allocated
 * before the table was found and is freed afterwards is only subtracted.
 */
#ifndef TIRN_MEM_H
#define TIRN_MEM_H

#include <sys/types.h>

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

#define KESA_MEM_MAGIC 0xF5F5F5F5u

/* The record directly before the bytes that the caller gets. */
struct kesa_mem_head {
  uint32_t magic;    /* KESA_MEM_MAGIC */
  uint32_t size;     /* as requested, without this record */
  uint32_t pid;      /* the owner's module id */
  uint32_t reserved; /* 0 */
};

/* The type that kesa_mallocsubproc stores on success. */
#define KESA_MEM_TYPE_STANDARD 1u

/*
 * Allocates `size` bytes for module `pid`; ids of 1024 and above are counted under 0. The bytes are not cleared, and
 * are aligned as those of malloc. `size` is taken as an unsigned 32-bit number, and the sum with the record must fit
 * in 32 bits. `reserved` is 0; `function` and `line` name the place of the call.
 * @returns the bytes, or NULL if `size` is 0 or there is no memory; only the latter is logged.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API void* kesa_mallocsubstandard(uint32_t pid, int32_t size, uint64_t reserved, const char* function,
                                      uint32_t line);

/*
 * Frees a block of kesa_mallocsubstandard and subtracts its bytes from its owner's count. A NULL pointer is logged;
 * after three such log lines in a row, none is written for a minute. A pointer without the magic number of the record
 * is logged and passed to free, so memory of plain malloc is accepted; this check reads memory 16 bytes before the
 * pointer. A second free of a block is not detected.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API void kesa_freesub(void* pointer, const char* function, uint32_t line);

/* The two functions above, with the caller's function and line filled in. */
#define kesa_malloc(pid, size) kesa_mallocsubstandard((pid), (size), 0, __func__, __LINE__)
#define kesa_free(pointer) kesa_freesub((pointer), __func__, __LINE__)

/*
 * Allocates as kesa_mallocsubstandard does, but logs nothing; a size of 0 gives a block without bytes. On success,
 * stores KESA_MEM_TYPE_STANDARD in `*type`, unless `type` is NULL.
 * @returns the bytes, or NULL if there is no memory.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API void* kesa_mallocsubproc(uint32_t size, uint32_t* type, uint64_t reserved, uint32_t pid,
                                  const char* function, uint32_t line);

/*
 * Calls free for a block, which is given by the address of its record. The counts do not change. `type` is not used.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API void kesa_freesubproc(void* block, uint64_t type);

/*
 * Writes the record of a block.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API void kesa_mem_init_head(void* block, uint32_t size, uint32_t pid);

/*
 * Adds bytes to the count of a module. Does nothing while the node offers no table of counts.
 * @safety MT-Safe, AS-Unsafe lock (until the table is found)
 */
TIRN_API void kesa_mem_stat_add(uint32_t pid, uint32_t size);

/*
 * Subtracts bytes from the count of a module. Does nothing while the node offers no table of counts.
 * @safety MT-Safe, AS-Unsafe lock (until the table is found)
 */
TIRN_API void kesa_mem_stat_sub(uint32_t pid, uint32_t size);

/*
 * Prints each count that is not 0, five in a text line, and the total. Does nothing for a NULL function. The counts
 * are read one by one while other threads change them. No lock is held during a call of the function, so it may be
 * cancelled or end the thread. While another thread is looking for the table, no count is printed.
 * @safety MT-Safe, AS-Unsafe lock (until the table is found)
 */
TIRN_API void kesa_mem_show(kesa_print_fn print);

/*
 * Asks the kernel side to print its own view of the counts.
 * @returns 0, or -1 on failure.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API int kesa_mem_stat_dump(void);

/*
 * Sets `count` bytes at `destination` to a value.
 * @returns `destination`.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API void* kesa_memset(void* destination, int32_t value, uint32_t count);

/*
 * Calls mprotect.
 * @returns its result.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_mprotect(void* address, uint32_t length, int protection);

/*
 * Calls mmap.
 * @returns its result.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API void* kesa_mmap(void* address, size_t length, int protection, int flags, int fd, off_t offset);

/*
 * Calls munmap.
 * @returns its result, or -1 for a NULL address.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_munmap(void* address, size_t length);

TIRN_EXTERN_C_END

#endif
