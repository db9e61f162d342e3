/*
 * A hash table of nodes that the caller's objects embed, with a fixed number of buckets. A key has two parts, a number
 * (often an address) and its type; nodes are equal where both are. C++ programs find a typed form in
 * tirn/containers.hpp.
 *
 * Nothing is locked, and nothing allocated after the creation: functions that change the table want it alone, the
 * others may run side by side.
 */
#ifndef TIRN_HASH_H
#define TIRN_HASH_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

struct kesa_hash_node {
  struct kesa_list_head link; /* in the bucket; to itself when the table has let the node go */
  uint64_t key;
  uint32_t keyType;
};

/* An allocator: both functions, or neither for malloc and free. */
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

/* Functions on each node. What a visitor gives back can end a walk. */
typedef void (*kesa_hash_release_fn)(struct kesa_hash_node* node);
typedef int (*kesa_hash_visit_fn)(struct kesa_hash_node* node);
typedef int (*kesa_hash_visit_with_fn)(struct kesa_hash_node* node, void* arg);

/* Empties the record: malloc and free. 0, or -1 for NULL.
 * @safety MT-Unsafe race:attr, AS-Safe */
TIRN_API int kesa_hash_attr_init(struct kesa_hash_attr* attr);

/*
 * Makes a table. `requested` buckets are rounded down to a power of two; ask for two or more, below 2^31. `pid` is the
 * caller's module, below TIRN_MODULE_COUNT. The table keeps `attr`, which may be NULL, until its end. 0; -EINVAL for
 * another argument; -ENOMEM, with a NULL stored, where the allocator gives nothing or has one function only.
 * @safety MT-Safe race:attr, AS-Unsafe heap
 */
TIRN_API int kesa_hash_create_ex(uint32_t requested, struct kesa_hash_table** table, uint32_t pid,
                                 struct kesa_hash_attr* attr);

/* kesa_hash_create_ex with malloc and free.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_hash_create(uint32_t requested, struct kesa_hash_table** table, uint32_t pid);

/* Takes out each node, calls `release`, unless that is NULL, which may free it, and frees the table. 0, or -EINVAL for
 * NULL.
 * @safety MT-Unsafe race:table, AS-Unsafe heap */
TIRN_API int kesa_hash_destory(struct kesa_hash_table* table, kesa_hash_release_fn release);

/* Enters a node by its `keyType` and `key`, which then stay as they are. 0; -EEXIST where an equal one is in the table;
 * -EINVAL for NULL.
 * @safety MT-Unsafe race:table, AS-Safe */
TIRN_API int kesa_hash_insert(struct kesa_hash_table* table, struct kesa_hash_node* node);

/* Takes the node with this key out, and stores it where `node` is not NULL. 0; -1 where there is none; -EINVAL for a
 * NULL table.
 * @safety MT-Unsafe race:table, AS-Safe */
TIRN_API int kesa_hash_delete(struct kesa_hash_table* table, uint32_t key_type, uint64_t key,
                              struct kesa_hash_node** node);

/* Stores the node with this key. 0; -1, with a NULL stored, where there is none; -EINVAL for NULL.
 * @safety MT-Safe race:table, AS-Safe */
TIRN_API int kesa_hash_search(const struct kesa_hash_table* table, uint32_t key_type, uint64_t key,
                              struct kesa_hash_node** node);

/*
 * Calls the function for each node, which it may take out of the table, but no other. With a `stop` that is not 0, the
 * first result that is not 0 ends the walk and is given; otherwise 0. -EINVAL where table or function is NULL.
 * @safety MT-Unsafe race:table, AS-Safe (as the function)
 */
TIRN_API int kesa_hash_for_each(struct kesa_hash_table* table, kesa_hash_visit_fn visit, int8_t stop);

/* The same with an argument for the function.
 * @safety MT-Unsafe race:table, AS-Safe (as the function) */
TIRN_API int kesa_hash_for_each_ex(struct kesa_hash_table* table, kesa_hash_visit_with_fn visit, void* arg,
                                   int8_t stop);

/* The index of a key's bucket among 2^bits: the highest bits of the product of both parts (`key_type` above the lower
 * half of `key`) and a prime near the golden ratio of 2^64. 0 for 0 bits.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint64_t hash_func(uint32_t key_type, uint64_t key, uint32_t bits);

/* 2^bits; 0 for 31 bits or more.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint32_t hash_pow(uint8_t bits);

/* The exponent of the highest power of two that is not above `count`; 0 for 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API uint32_t hash_get_pow(uint32_t count);

/* Memory from the record's function, or from malloc where the record is NULL or empty. NULL where there is none, and
 * where the record has one function only.
 * @safety MT-Safe race:attr, AS-Unsafe heap */
TIRN_API void* kesa_hash_malloc(const struct kesa_hash_attr* attr, uint64_t size);

/* Gives memory back by the record's function, or by free where it has none.
 * @safety MT-Safe race:attr, AS-Unsafe heap */
TIRN_API void kesa_hash_free(const struct kesa_hash_attr* attr, void* memory);

TIRN_EXTERN_C_END

#endif
