/*
 * A height-balanced search tree of the caller's objects. Each object embeds a kesa_avl_node; the tree allocates
 * nothing, and takes and gives pointers to the objects' beginnings. C++ programs find a typed form in
 * tirn/containers.hpp.
 *
 *   struct item { uint64_t key; struct kesa_avl_node node; };
 *   static int compare(const void* key, const void* object, uint64_t zero) { ... -1, 0 or 1 ... }
 *
 *   kesa_create_avl(&tree, compare, sizeof(struct item), offsetof(struct item, node));
 *   if (kesa_find_avl_node(&tree, &key, &position) == NULL) {
 *     kesa_insert_avl_node(&tree, item, position);
 *   }
 *
 * Nothing is locked: functions that change the tree want it alone, the others may run side by side. Nothing tests
 * whether an object is in the tree; removing one that is not ruins the count and the links. A NULL tree, object or
 * function is logged, except by kesa_walk_avl_node.
 */
#ifndef TIRN_AVL_H
#define TIRN_AVL_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* Directions: towards smaller and larger objects. */
#define KESA_AVL_LEFT 0u
#define KESA_AVL_RIGHT 1u

struct kesa_avl_node {
  struct kesa_avl_node* child[2]; /* left and right */
  struct kesa_avl_node* parent;   /* NULL at the root */
  uint32_t childIndex;            /* which child of its parent this is; means nothing at the root */
  int32_t balance;                /* height of the right subtree less that of the left: -1, 0 or 1 */
};

/* Where a key stands against an object of the tree: -1 left of it, 1 right of it, 0 equal. Any other answer ends the
 * search as a failure. `key` is what the search was given, be it a key or an object to insert; `zero` is always 0. */
typedef int (*kesa_avl_compare_fn)(const void* key, const void* object, uint64_t zero);

struct kesa_avl_tree {
  struct kesa_avl_node* root;      /* NULL while the tree is empty */
  kesa_avl_compare_fn addCompare;  /* of an object to insert */
  kesa_avl_compare_fn findCompare; /* of a key */
  uint32_t offset;                 /* of the node in the object */
  uint32_t size;                   /* of the object; not used */
  uint64_t nodeCount;
};

/*
 * Makes an empty tree whose compare function takes both keys and objects. `size` is the object's, `offset` that of the
 * node in it. 0, or -1 where tree or function is NULL.
 * @safety MT-Unsafe race:tree, AS-Safe
 */
TIRN_API int kesa_create_avl(struct kesa_avl_tree* tree, kesa_avl_compare_fn compare, uint32_t size, uint32_t offset);

/* The same with a function for objects to insert and one for keys.
 * @safety MT-Unsafe race:tree, AS-Safe */
TIRN_API int kesa_create_avl_new(struct kesa_avl_tree* tree, kesa_avl_compare_fn add_compare,
                                 kesa_avl_compare_fn find_compare, uint32_t size, uint32_t offset);

/* Empties the tree without a look at its objects, which stay the caller's. 0, or -1 for NULL.
 * @safety MT-Unsafe race:tree, AS-Safe */
TIRN_API int kesa_destroy_avl(struct kesa_avl_tree* tree);

/*
 * The object equal to the key, and NULL where there is none. Then the position where it would stand is stored, where
 * `cookie` is not NULL: the address of the parent node with the direction in the lowest bit, 0 for an empty tree. It
 * holds until the tree changes. A search that failed, since the compare function answered neither -1, 0 nor 1, stores
 * 0 as well: a cookie below 2 from a tree that is not empty is no position. O(log n).
 * @safety MT-Safe race:tree, AS-Safe (as the compare function)
 */
TIRN_API void* kesa_find_avl_node(const struct kesa_avl_tree* tree, const void* key, uint64_t* cookie);

/* The neighbour of a position that kesa_find_avl_node stored, in that direction; NULL where there is none, and for a
 * position in an empty tree. A direction above 1 gives the parent's object.
 * @safety MT-Safe race:tree, AS-Safe */
TIRN_API void* kesa_find_avl_nearest_node(const struct kesa_avl_tree* tree, uint64_t cookie, uint32_t direction);

/*
 * Inserts the object at a position that kesa_find_avl_node stored, without a comparison. A cookie below 2 makes it the
 * root; what the tree held is then no longer reached from there. 0, or -1 where tree or object is NULL. O(log n).
 * @safety MT-Unsafe race:tree, AS-Safe
 */
TIRN_API int kesa_insert_avl_node(struct kesa_avl_tree* tree, void* object, uint64_t cookie);

/*
 * Finds the object's position and inserts it there. Where the tree holds an equal one, and where the compare function
 * answered neither -1, 0 nor 1, nothing is inserted. O(log n).
 * @safety MT-Unsafe race:tree, AS-Safe (as the compare function)
 */
TIRN_API void kesa_add_avl_node(struct kesa_avl_tree* tree, void* object);

/*
 * Inserts the object directly before (direction 0) or behind (1) the object `here`, without a comparison: that the
 * order stays right is the caller's duty. 0; -1 where a pointer is NULL and for another direction. O(log n).
 * @safety MT-Unsafe race:tree, AS-Safe
 */
TIRN_API int kesa_insert_avl_node_specified(struct kesa_avl_tree* tree, void* object, void* here, uint32_t direction);

/* Takes an object out of the tree. No object moves in memory. O(log n).
 * @safety MT-Unsafe race:tree, AS-Safe */
TIRN_API void kesa_remove_avl_node(struct kesa_avl_tree* tree, void* object);

/* The next object in that direction, without a comparison; NULL, silently, at the end, for a NULL tree or object, and
 * where the direction is neither 0 nor 1.
 * @safety MT-Safe race:tree, AS-Safe */
TIRN_API void* kesa_walk_avl_node(const struct kesa_avl_tree* tree, const void* object, uint32_t direction);

/* The smallest object; NULL where there is none.
 * @safety MT-Safe race:tree, AS-Safe */
TIRN_API void* kesa_get_avl_first_node(const struct kesa_avl_tree* tree);

/* The largest object; NULL where there is none.
 * @safety MT-Safe race:tree, AS-Safe */
TIRN_API void* kesa_get_avl_last_node(const struct kesa_avl_tree* tree);

/* How many objects the tree holds; -1, all ones, for NULL.
 * @safety MT-Safe race:tree, AS-Safe */
TIRN_API uint64_t kesa_get_avl_node_num(const struct kesa_avl_tree* tree);

TIRN_EXTERN_C_END

#endif
