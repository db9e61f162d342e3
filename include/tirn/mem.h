/*
 * Tagged allocation: each block carries the id of the module that owns it, and the bytes of each module are counted.
 * The thin page calls stand here too. Nothing here is a cancellation point.
 *
 * The counts stand in a table of the kernel side, which is asked for at each use until it answers. Nobody waits for a
 * thread that asks: what is counted meanwhile, or by a callback from inside, joins the table when that is found. Where
 * the node offers none, nothing is counted. A block that was made before there was a table, and is freed after, is only
 * subtracted.
 */
#ifndef TIRN_MEM_H
#define TIRN_MEM_H

#include <sys/types.h>

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

#define KESA_MEM_MAGIC 0xF5F5F5F5u

/* Stands directly before the bytes that the caller gets. */
struct kesa_mem_head {
  uint32_t magic;    /* KESA_MEM_MAGIC */
  uint32_t size;     /* as asked for, without this record */
  uint32_t pid;      /* the owner's module id */
  uint32_t reserved; /* 0 */
};

/* The type that kesa_mallocsubproc stores on success. */
#define KESA_MEM_TYPE_STANDARD 1u

/*
 * Allocates `size` bytes for module `pid` (ids of 1024 and above are counted under 0). Not cleared; aligned as
 * malloc's. NULL for a size of 0, without a word, and where there is no memory. `size` is taken as 32 unsigned
 * bits: the sum with the record must fit 32 bits. `reserved` is 0; `function` and `line` are the caller's.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API void* kesa_mallocsubstandard(uint32_t pid, int32_t size, uint64_t reserved, const char* function,
                                      uint32_t line);

/*
 * Frees a block of kesa_mallocsubstandard and takes its bytes off its owner's count. A NULL pointer is reported (at
 * most three times in a row). A pointer without the record's mark is reported and given to free, so memory from
 * plain malloc may come here; 16 bytes before it are read. A second free of a block is not detected.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API void kesa_freesub(void* pointer, const char* function, uint32_t line);

/* The two with the caller's function and line filled in. */
#define kesa_malloc(pid, size) kesa_mallocsubstandard((pid), (size), 0, __func__, __LINE__)
#define kesa_free(pointer) kesa_freesub((pointer), __func__, __LINE__)

/*
 * The worker behind kesa_mallocsubstandard: allocates, writes the record, counts, and stores
 * KESA_MEM_TYPE_STANDARD through `type` (if not NULL). The caller's bytes, or NULL without a message; a size of 0
 * gives a block without bytes.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API void* kesa_mallocsubproc(uint32_t size, uint32_t* type, uint64_t reserved, uint32_t pid,
                                  const char* function, uint32_t line);

/* free(block): the block's own address, record included; nothing is counted.
 * @safety MT-Safe, AS-Unsafe heap lock */
TIRN_API void kesa_freesubproc(void* block, uint64_t type);

/* Writes the record of a block.
 * @safety MT-Safe, AS-Safe */
TIRN_API void kesa_mem_init_head(void* block, uint32_t size, uint32_t pid);

/* Adds bytes to a module's count; nothing while the node offers no table of counts.
 * @safety MT-Safe, AS-Unsafe lock (until the table is found) */
TIRN_API void kesa_mem_stat_add(uint32_t pid, uint32_t size);

/* Takes bytes off a module's count.
 * @safety MT-Safe, AS-Unsafe lock (until the table is found) */
TIRN_API void kesa_mem_stat_sub(uint32_t pid, uint32_t size);

/*
 * Prints the count of each module that has one, five to a line, and the total. Nothing for a NULL function. The
 * counts are read one by one while others change them. Nothing is held meanwhile: the function may be cancelled or
 * end the thread.
 * @safety MT-Safe, AS-Unsafe lock (until the table is found)
 */
TIRN_API void kesa_mem_show(kesa_print_fn print);

/* Asks the kernel side to print its view of the counts. 0, or -1.
 * @safety MT-Safe, AS-Unsafe lock */
TIRN_API int kesa_mem_stat_dump(void);

/* Sets `count` bytes to a value and returns the destination.
 * @safety MT-Safe, AS-Safe */
TIRN_API void* kesa_memset(void* destination, int32_t value, uint32_t count);

/* mprotect. @safety MT-Safe, AS-Safe */
TIRN_API int kesa_mprotect(void* address, uint32_t length, int protection);

/* mmap. @safety MT-Safe, AS-Safe */
TIRN_API void* kesa_mmap(void* address, size_t length, int protection, int flags, int fd, off_t offset);

/* munmap; -1 for a NULL address. @safety MT-Safe, AS-Safe */
TIRN_API int kesa_munmap(void* address, size_t length);

TIRN_EXTERN_C_END

#endif
