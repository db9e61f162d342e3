/*
 * A height-balanced search tree of the caller's objects. Each object embeds a kesa_avl_node. The tree allocates
 * nothing; it takes and returns pointers to the beginnings of the objects. C++ programs find a typed form in
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
 * The tree has no lock: a function that changes the tree needs exclusive access to it, the others may run
 * concurrently. Nothing checks whether an object is in the tree; removing one that is not corrupts the count and the
 * links. A NULL tree, object or function is logged, except by kesa_walk_avl_node.
 */
#ifndef TIRN_AVL_H
#define TIRN_AVL_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* Directions: towards smaller and towards larger objects. */
#define KESA_AVL_LEFT 0u
#define KESA_AVL_RIGHT 1u

struct kesa_avl_node {
  struct kesa_avl_node* child[2]; /* left and right */
  struct kesa_avl_node* parent;   /* NULL at the root */
  uint32_t childIndex;            /* which child of its parent this is; has no meaning at the root */
  int32_t balance;                /* height of the right subtree minus that of the left: -1, 0 or 1 */
};

/*
 * Compares a key with an object of the tree: -1 if the key belongs to the left of the object, 1 if to the right, 0 if
 * they are equal. Any other result ends the search as a failure. `key` is what the caller passed to the search: a
 * key, or an object to insert. `zero` is always 0.
 */
typedef int (*kesa_avl_compare_fn)(const void* key, const void* object, uint64_t zero);

struct kesa_avl_tree {
  struct kesa_avl_node* root;      /* NULL while the tree is empty */
  kesa_avl_compare_fn addCompare;  /* compares an object to insert */
  kesa_avl_compare_fn findCompare; /* compares a key */
  uint32_t offset;                 /* of the node in the object */
  uint32_t size;                   /* of the object; not used */
  uint64_t nodeCount;
};

/*
 * Makes an empty tree with one compare function for keys and for objects to insert. `size` is the size of an object,
 * `offset` the offset of the node in it.
 * @returns 0, or -1 if the tree or the function is NULL.
 * @safety MT-Unsafe race:tree, AS-Safe
 */
TIRN_API int kesa_create_avl(struct kesa_avl_tree* tree, kesa_avl_compare_fn compare, uint32_t size, uint32_t offset);

/*
 * Makes an empty tree, as kesa_create_avl does, with one compare function for objects to insert and another for keys.
 * @returns 0, or -1 if the tree or a function is NULL.
 * @safety MT-Unsafe race:tree, AS-Safe
 */
TIRN_API int kesa_create_avl_new(struct kesa_avl_tree* tree, kesa_avl_compare_fn add_compare,
                                 kesa_avl_compare_fn find_compare, uint32_t size, uint32_t offset);

/*
 * Empties the tree without touching its objects, which still belong to the caller.
 * @returns 0, or -1 if the tree is NULL.
 * @safety MT-Unsafe race:tree, AS-Safe
 */
TIRN_API int kesa_destroy_avl(struct kesa_avl_tree* tree);

/*
 * Finds the object that is equal to the key, in O(log n). If there is none and `cookie` is not NULL, stores there the
 * position where such an object would be inserted: the address of the parent node with the direction in the lowest
 * bit, or 0 for an empty tree. The position is valid until the tree changes. The search fails if the compare function
 * returns a value other than -1, 0 and 1. The cookie is then 0, too. A cookie of 0 or 1 names no parent node; it is a
 * valid position only if the tree is empty.
 * @returns the object, or NULL if there is none or the search failed.
 * @safety MT-Safe race:tree, AS-Safe (as the compare function)
 */
TIRN_API void* kesa_find_avl_node(const struct kesa_avl_tree* tree, const void* key, uint64_t* cookie);

/*
 * Finds the neighbour, in the given direction, of a position that kesa_find_avl_node stored. A direction above 1 asks
 * for the object of the parent node.
 * @returns the object, or NULL if there is none or the position is in an empty tree.
 * @safety MT-Safe race:tree, AS-Safe
 */
TIRN_API void* kesa_find_avl_nearest_node(const struct kesa_avl_tree* tree, uint64_t cookie, uint32_t direction);

/*
 * Inserts the object at a position that kesa_find_avl_node stored, without a comparison, in O(log n). A cookie of 0
 * or 1 makes the object the root; if the tree was not empty, its former nodes are then no longer reachable.
 * @returns 0, or -1 if the tree or the object is NULL.
 * @safety MT-Unsafe race:tree, AS-Safe
 */
TIRN_API int kesa_insert_avl_node(struct kesa_avl_tree* tree, void* object, uint64_t cookie);

/*
 * Finds the position of the object and inserts it there, in O(log n). Inserts nothing if the tree holds an equal
 * object, or if the compare function returns a value other than -1, 0 and 1; only the latter is logged.
 * @safety MT-Unsafe race:tree, AS-Safe (as the compare function)
 */
TIRN_API void kesa_add_avl_node(struct kesa_avl_tree* tree, void* object);

/*
 * Inserts the object directly before (direction 0) or after (direction 1) the object `here`, without a comparison, in
 * O(log n). The caller must make sure that the order stays right.
 * @returns 0, or -1 if a pointer is NULL or the direction is neither 0 nor 1.
 * @safety MT-Unsafe race:tree, AS-Safe
 */
TIRN_API int kesa_insert_avl_node_specified(struct kesa_avl_tree* tree, void* object, void* here, uint32_t direction);

/*
 * Removes an object from the tree, in O(log n). No object moves in memory.
 * @safety MT-Unsafe race:tree, AS-Safe
 */
TIRN_API void kesa_remove_avl_node(struct kesa_avl_tree* tree, void* object);

/*
 * Steps to the next object in the given direction, without a comparison. Logs nothing.
 * @returns the object, or NULL at the end, if the tree or the object is NULL, or if the direction is neither 0 nor 1.
 * @safety MT-Safe race:tree, AS-Safe
 */
TIRN_API void* kesa_walk_avl_node(const struct kesa_avl_tree* tree, const void* object, uint32_t direction);

/*
 * Finds the smallest object.
 * @returns the object, or NULL if there is none.
 * @safety MT-Safe race:tree, AS-Safe
 */
TIRN_API void* kesa_get_avl_first_node(const struct kesa_avl_tree* tree);

/*
 * Finds the largest object.
 * @returns the object, or NULL if there is none.
 * @safety MT-Safe race:tree, AS-Safe
 */
TIRN_API void* kesa_get_avl_last_node(const struct kesa_avl_tree* tree);

/*
 * Counts the objects in the tree, in O(1).
 * @returns their number, or UINT64_MAX if the tree is NULL.
 * @safety MT-Safe race:tree, AS-Safe
 */
TIRN_API uint64_t kesa_get_avl_node_num(const struct kesa_avl_tree* tree);

TIRN_EXTERN_C_END

#endif
