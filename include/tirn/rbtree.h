/*
 * A red-black tree of nodes that the caller's objects embed. The caller searches and links by itself; the tree restores
 * the balance and never asks for the order. C++ programs find a typed form in tirn/containers.hpp.
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
 * Nothing is locked or allocated: functions that change the tree want it alone, the others may run side by side.
 */
#ifndef TIRN_RBTREE_H
#define TIRN_RBTREE_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

#define KESA_RB_RED 0u
#define KESA_RB_BLACK 1u

/* At an address that 4 divides. */
struct kesa_rb_node {
  uint64_t
      parentColor; /* the parent's address, below 4 where there is none; bit 0 the colour; bit 1 not used, kept */
  struct kesa_rb_node* right;
  struct kesa_rb_node* left;
};

struct kesa_rb_root {
  struct kesa_rb_node* node; /* NULL while the tree is empty */
};

/* A function on a node and the caller's data, for trees that keep a summary of its subtree in each node. */
typedef void (*kesa_rb_augment_fn)(struct kesa_rb_node* node, void* data);

/* Marks a node as being in no tree: kesa_rb_next and kesa_rb_prev give NULL for it.
 * @safety MT-Unsafe race:node, AS-Safe */
static inline void kesa_rb_clear_node(struct kesa_rb_node* node) { node->parentColor = (uint64_t)(uintptr_t)node; }

/* Links a new red node below `parent`, NULL for a root, in the place of the child that `link` points to.
 * kesa_rb_insert_color must follow.
 * @safety MT-Unsafe race:root, AS-Safe */
static inline void kesa_rb_link_node(struct kesa_rb_node* node, struct kesa_rb_node* parent,
                                     struct kesa_rb_node** link) {
  node->parentColor = (uint64_t)(uintptr_t)parent;
  node->right = node->left = NULL;
  *link = node;
}

/* Restores the balance when a new red node has been linked. O(log n).
 * @safety MT-Unsafe race:root, AS-Safe */
TIRN_API void kesa_rb_insert_color(struct kesa_rb_node* node, struct kesa_rb_root* root);

/* Takes a node out of the tree, whose own links stay as they were. O(log n).
 * @safety MT-Unsafe race:root, AS-Safe */
TIRN_API void kesa_rb_erase(struct kesa_rb_node* node, struct kesa_rb_root* root);

/* The leftmost node, NULL where there is none.
 * @safety MT-Safe race:root, AS-Safe */
TIRN_API struct kesa_rb_node* kesa_rb_first(const struct kesa_rb_root* root);

/* The rightmost node, NULL where there is none.
 * @safety MT-Safe race:root, AS-Safe */
TIRN_API struct kesa_rb_node* kesa_rb_last(const struct kesa_rb_root* root);

/* The node behind it in order; NULL at the end and for a node that is marked as being in no tree.
 * @safety MT-Safe race:root, AS-Safe */
TIRN_API struct kesa_rb_node* kesa_rb_next(const struct kesa_rb_node* node);

/* The node before it in order; NULL at the end and for a node that is marked as being in no tree.
 * @safety MT-Safe race:root, AS-Safe */
TIRN_API struct kesa_rb_node* kesa_rb_prev(const struct kesa_rb_node* node);

/* Puts `node`, whose content does not matter, at the place of `old`, with its colour and children. That the order stays
 * right is the caller's duty. O(1).
 * @safety MT-Unsafe race:root, AS-Safe */
TIRN_API void kesa_rb_replace_node(struct kesa_rb_node* old, struct kesa_rb_node* node, struct kesa_rb_root* root);

/*
 * Calls the function for all nodes whose summary an insert can have changed, and for the other child of each, children
 * before parents. A node may be met twice, so the function gives the same summary when it is repeated. To be called behind kesa_rb_insert_color. O(log n).
 * @safety MT-Unsafe race:root, AS-Safe (as the function)
 */
TIRN_API void kesa_rb_augment_insert(struct kesa_rb_node* node, kesa_rb_augment_fn function, void* data);

/* The deepest node whose summary the coming kesa_rb_erase of `node` will disturb, for kesa_rb_augment_erase_end; NULL
 * where there is none.
 * @safety MT-Safe race:root, AS-Safe */
TIRN_API struct kesa_rb_node* kesa_rb_augment_erase_begin(const struct kesa_rb_node* node);

/* The same as kesa_rb_augment_insert from what kesa_rb_augment_erase_begin gave, behind kesa_rb_erase. Nothing for NULL.
 * @safety MT-Unsafe race:root, AS-Safe (as the function) */
TIRN_API void kesa_rb_augment_erase_end(struct kesa_rb_node* node, kesa_rb_augment_fn function, void* data);

TIRN_EXTERN_C_END

#endif
