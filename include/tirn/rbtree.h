/*
 * A red-black tree of nodes that are embedded in the caller's objects. The caller searches and links by itself; the
 * tree restores the balance and never compares objects. C++ programs find a typed form in tirn/containers.hpp.
 *
 *   struct kesa_rb_node** link = &root->node;
 *   struct kesa_rb_node* parent = NULL;
 *   while (*link != NULL) {
 *     parent = *link;
 *     link = key < item_of(parent)->key ? &parent->left : &parent->right;
 *   }
 *   kesa_rb_link_node(&item->node, parent, link);
 *   kesa_rb_insert_color(&item->node, root);
 *
 * The tree has no lock and allocates nothing. A function that changes the tree needs exclusive access to it, the
 * others may run concurrently.
 */
#ifndef TIRN_RBTREE_H
#define TIRN_RBTREE_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

#define KESA_RB_RED 0u
#define KESA_RB_BLACK 1u

/* The address of a node must be a multiple of 4. */
struct kesa_rb_node {
  uint64_t
      parentColor; /* the parent's address, below 4 if there is none; bit 0: the colour; bit 1: unused, but kept */
  struct kesa_rb_node* right;
  struct kesa_rb_node* left;
};

struct kesa_rb_root {
  struct kesa_rb_node* node; /* NULL while the tree is empty */
};

/* Updates the summary that a node keeps of its subtree. `data` is the caller's. */
typedef void (*kesa_rb_augment_fn)(struct kesa_rb_node* node, void* data);

/*
 * Marks a node as being in no tree: kesa_rb_next and kesa_rb_prev return NULL for it.
 * @safety MT-Unsafe race:node, AS-Safe
 */
static inline void kesa_rb_clear_node(struct kesa_rb_node* node) { node->parentColor = (uint64_t)(uintptr_t)node; }

/*
 * Links a new red node below `parent`, which is NULL for a root, as the child that `link` points to. Call
 * kesa_rb_insert_color afterwards.
 * @safety MT-Unsafe race:root, AS-Safe
 */
static inline void kesa_rb_link_node(struct kesa_rb_node* node, struct kesa_rb_node* parent,
                                     struct kesa_rb_node** link) {
  node->parentColor = (uint64_t)(uintptr_t)parent;
  node->right = node->left = NULL;
  *link = node;
}

/*
 * Restores the balance after a new red node was linked, in O(log n).
 * @safety MT-Unsafe race:root, AS-Safe
 */
TIRN_API void kesa_rb_insert_color(struct kesa_rb_node* node, struct kesa_rb_root* root);

/*
 * Removes a node from the tree, in O(log n). The links in the node itself do not change.
 * @safety MT-Unsafe race:root, AS-Safe
 */
TIRN_API void kesa_rb_erase(struct kesa_rb_node* node, struct kesa_rb_root* root);

/*
 * Finds the leftmost node.
 * @returns the node, or NULL if there is none.
 * @safety MT-Safe race:root, AS-Safe
 */
TIRN_API struct kesa_rb_node* kesa_rb_first(const struct kesa_rb_root* root);

/*
 * Finds the rightmost node.
 * @returns the node, or NULL if there is none.
 * @safety MT-Safe race:root, AS-Safe
 */
TIRN_API struct kesa_rb_node* kesa_rb_last(const struct kesa_rb_root* root);

/*
 * Finds the node that follows `node` in the order of the tree.
 * @returns the next node, or NULL at the end and for a node that is marked as being in no tree.
 * @safety MT-Safe race:root, AS-Safe
 */
TIRN_API struct kesa_rb_node* kesa_rb_next(const struct kesa_rb_node* node);

/*
 * Finds the node that precedes `node` in the order of the tree.
 * @returns the previous node, or NULL at the beginning and for a node that is marked as being in no tree.
 * @safety MT-Safe race:root, AS-Safe
 */
TIRN_API struct kesa_rb_node* kesa_rb_prev(const struct kesa_rb_node* node);

/*
 * Puts `node` in the place of `old`, with the colour and the children of `old`, in O(1). The former content of `node`
 * does not matter. The caller must make sure that the order stays right.
 * @safety MT-Unsafe race:root, AS-Safe
 */
TIRN_API void kesa_rb_replace_node(struct kesa_rb_node* old, struct kesa_rb_node* node, struct kesa_rb_root* root);

/*
 * Calls the function for all nodes whose summary an insertion can have changed, and for the other child of each,
 * children before parents, in O(log n). The function may be called twice for a node, so it must give the same summary
 * when it is repeated. Call this after kesa_rb_insert_color.
 * @safety MT-Unsafe race:root, AS-Safe (as the function)
 */
TIRN_API void kesa_rb_augment_insert(struct kesa_rb_node* node, kesa_rb_augment_fn function, void* data);

/*
 * Finds the deepest node whose summary will be changed by kesa_rb_erase of `node`. Call this before kesa_rb_erase,
 * and pass the result to kesa_rb_augment_erase_end.
 * @returns that node, or NULL if there is none.
 * @safety MT-Safe race:root, AS-Safe
 */
TIRN_API struct kesa_rb_node* kesa_rb_augment_erase_begin(const struct kesa_rb_node* node);

/*
 * Does the same as kesa_rb_augment_insert, starting from the node that kesa_rb_augment_erase_begin returned. Call
 * this after kesa_rb_erase. Does nothing for NULL.
 * @safety MT-Unsafe race:root, AS-Safe (as the function)
 */
TIRN_API void kesa_rb_augment_erase_end(struct kesa_rb_node* node, kesa_rb_augment_fn function, void* data);

TIRN_EXTERN_C_END

#endif
