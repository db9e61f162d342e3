/*
 * A hash table of nodes that are embedded in the caller's objects, with a fixed number of buckets. A key has two
 * parts, a number (often an address) and its type; two keys are equal if both parts are. C++ programs find a typed
 * form in tirn/containers.hpp.
 *
 * The table has no lock, and allocates nothing after its creation. A function that changes the table needs exclusive
 * access to it, the others may run concurrently.
 */
#ifndef TIRN_HASH_H
#define TIRN_HASH_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

struct kesa_hash_node {
  struct kesa_list_head link; /* in the bucket; points to itself after the node was removed from the table */
  uint64_t key;
  uint32_t keyType;
};

/* An allocator: both functions are set, or neither, which stands for malloc and free. */
struct kesa_hash_attr {
  void* (*malloc)(uint64_t size);
  void (*free)(void* memory);
};

struct kesa_hash_table {
  struct kesa_list_head* buckets;
  uint32_t bucketCount; /* 2 to the power of `bits` */
  uint8_t bits;
  struct kesa_hash_attr* attr; /* the caller's; NULL for malloc and free */
};

/* Functions that are called for each node. A visit that returns a value other than 0 can end the walk. */
typedef void (*kesa_hash_release_fn)(struct kesa_hash_node* node);
typedef int (*kesa_hash_visit_fn)(struct kesa_hash_node* node);
typedef int (*kesa_hash_visit_with_fn)(struct kesa_hash_node* node, void* arg);

/*
 * Clears the allocator, so that it stands for malloc and free.
 * @returns 0, or -1 if `attr` is NULL.
 * @safety MT-Unsafe race:attr, AS-Safe
 */
TIRN_API int kesa_hash_attr_init(struct kesa_hash_attr* attr);

/*
 * Makes a table. The number of buckets is `requested`, rounded down to a power of two; ask for 2 or more, below 2^31.
 * `pid` is the caller's module, below TIRN_MODULE_COUNT. The table uses `attr`, which may be NULL, until it is
 * destroyed.
 * @returns 0; -EINVAL for a bad argument; -ENOMEM, with NULL stored in `*table`, if the allocator has no memory or
 * only one of its functions is set.
 * @safety MT-Safe race:attr, AS-Unsafe heap
 */
TIRN_API int kesa_hash_create_ex(uint32_t requested, struct kesa_hash_table** table, uint32_t pid,
                                 struct kesa_hash_attr* attr);

/*
 * Makes a table as kesa_hash_create_ex does, with malloc and free.
 * @returns the same results.
 * @safety MT-Safe, AS-Unsafe heap
 */
TIRN_API int kesa_hash_create(uint32_t requested, struct kesa_hash_table** table, uint32_t pid);

/*
 * Removes each node and calls `release` for it, unless that is NULL; `release` may free the node. Then frees the
 * table.
 * @returns 0, or -EINVAL if the table is NULL.
 * @safety MT-Unsafe race:table, AS-Unsafe heap
 */
TIRN_API int kesa_hash_destory(struct kesa_hash_table* table, kesa_hash_release_fn release);

/*
 * Inserts a node by its `keyType` and `key`, which must not change while the node is in the table.
 * @returns 0; -EEXIST if the table holds a node with an equal key; -EINVAL for a NULL pointer.
 * @safety MT-Unsafe race:table, AS-Safe
 */
TIRN_API int kesa_hash_insert(struct kesa_hash_table* table, struct kesa_hash_node* node);

/*
 * Removes the node with this key, and stores its address in `*node` unless `node` is NULL.
 * @returns 0; -1 if there is no such node; -EINVAL for a NULL table.
 * @safety MT-Unsafe race:table, AS-Safe
 */
TIRN_API int kesa_hash_delete(struct kesa_hash_table* table, uint32_t key_type, uint64_t key,
                              struct kesa_hash_node** node);

/*
 * Finds the node with this key and stores its address in `*node`.
 * @returns 0; -1, with NULL stored, if there is no such node; -EINVAL for a NULL pointer.
 * @safety MT-Safe race:table, AS-Safe
 */
TIRN_API int kesa_hash_search(const struct kesa_hash_table* table, uint32_t key_type, uint64_t key,
                              struct kesa_hash_node** node);

/*
 * Calls `visit` for each node. The function may remove that node from the table, but no other. If `stop` is not 0,
 * the first result other than 0 ends the walk.
 * @returns the result that ended the walk, otherwise 0; -EINVAL if the table or the function is NULL.
 * @safety MT-Unsafe race:table, AS-Safe (as the function)
 */
TIRN_API int kesa_hash_for_each(struct kesa_hash_table* table, kesa_hash_visit_fn visit, int8_t stop);

/*
 * Does the same as kesa_hash_for_each and passes `arg` to the function.
 * @returns the same results.
 * @safety MT-Unsafe race:table, AS-Safe (as the function)
 */
TIRN_API int kesa_hash_for_each_ex(struct kesa_hash_table* table, kesa_hash_visit_with_fn visit, void* arg,
                                   int8_t stop);

/*
 * Computes which of 2^bits buckets a key belongs to. `key_type` and the lower 32 bits of `key` form a 64-bit number,
 * which is multiplied by a prime near 2^64 divided by the golden ratio; the highest bits of the product are the
 * index.
 * @returns the index, 0 for 0 bits.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API uint64_t hash_func(uint32_t key_type, uint64_t key, uint32_t bits);

/*
 * Computes 2^bits.
 * @returns the power, or 0 for 31 bits or more.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API uint32_t hash_pow(uint8_t bits);

/*
 * Computes the exponent of the highest power of two that is not above `count`.
 * @returns the exponent, 0 for a count of 0.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API uint32_t hash_get_pow(uint32_t count);

/*
 * Allocates memory with the function of the allocator, or with malloc if the allocator is NULL or has no functions.
 * @returns the memory, or NULL if there is none or only one of the functions is set; the latter is logged.
 * @safety MT-Safe race:attr, AS-Unsafe heap
 */
TIRN_API void* kesa_hash_malloc(const struct kesa_hash_attr* attr, uint64_t size);

/*
 * Frees memory with the function of the allocator, or with free if it has none.
 * @safety MT-Safe race:attr, AS-Unsafe heap
 */
TIRN_API void kesa_hash_free(const struct kesa_hash_attr* attr, void* memory);

TIRN_EXTERN_C_END

#endif
