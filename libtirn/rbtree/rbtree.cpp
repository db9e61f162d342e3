// Implements the red-black tree of tirn/rbtree.h.
#include "tirn/rbtree.h"

#include <initializer_list>

namespace {

using Node = kesa_rb_node;
using Root = kesa_rb_root;

// A side is a pointer to the member `left` or `right` of a node. Mirrored cases share their code by it, without a
// branch on the side, which would be mispredicted half of the time.
using Side = Node* Node::*;
constexpr Side other(Side side) { return side == &Node::left ? &Node::right : &Node::left; }
Side side_of(const Node* child, const Node* parent) { return child == parent->left ? &Node::left : &Node::right; }

// The bits of `parentColor` below the parent's address. A change of one part keeps the others.
constexpr uint64_t kColor = KESA_RB_BLACK;
constexpr uint64_t kSpare = 2;

Node* parent_of(const Node* node) { return reinterpret_cast<Node*>(node->parentColor & ~(kColor | kSpare)); }
bool is_red(const Node* node) { return (node->parentColor & kColor) == 0; }
void set_red(Node* node) { node->parentColor &= ~kColor; }
void set_black(Node* node) { node->parentColor |= kColor; }

void set_parent(Node* node, const Node* parent) {
  node->parentColor = reinterpret_cast<uintptr_t>(parent) | (node->parentColor & (kColor | kSpare));
}

// Gives `node` the parent and the colour of `other`. Its spare bit stays.
void take_place(Node* node, const Node* other) {
  node->parentColor = (other->parentColor & ~kSpare) | (node->parentColor & kSpare);
}

void take_color(Node* node, const Node* other) {
  node->parentColor = (node->parentColor & ~kColor) | (other->parentColor & kColor);
}

bool is_red_child(const Node* child) { return child != nullptr && is_red(child); }

// Replaces `former` by `child`, which may be NULL, below `parent`. If `former` is the root, `parent` is NULL.
void replace_child(Node* parent, const Node* former, Node* child, Root* root) {
  (parent == nullptr ? root->node : parent->*side_of(former, parent)) = child;
}

// Rotates towards `side`: the child on the other side takes the place of `node`, and `node` becomes its child on
// `side`.
void rotate(Node* node, Side side, Root* root) {
  Node* const child = node->*other(side);
  Node* const inner = child->*side;
  Node* const parent = parent_of(node);
  node->*other(side) = inner;
  if (inner != nullptr) {
    set_parent(inner, node);
  }
  child->*side = node;
  set_parent(child, parent);
  set_parent(node, child);
  replace_child(parent, node, child, root);
}

// Repairs a subtree in which paths through this side of `parent` have one black node too few. Returns true if no path
// lacks one any longer. Otherwise every path through `parent` now has one too few.
bool make_up(Node* parent, Side side, Root* root) {
  Node* sibling = parent->*other(side);
  if (is_red(sibling)) {
    set_black(sibling);
    set_red(parent);
    rotate(parent, side, root);
    sibling = parent->*other(side);
  }
  // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): `sibling` is never NULL, its side has one black node more
  Node* const inner = sibling->*side;
  Node* const outer = sibling->*other(side);
  if (!is_red_child(inner) && !is_red_child(outer)) {
    set_red(sibling);
    return false;
  }
  if (!is_red_child(outer)) {
    rotate(sibling, other(side), root);
    sibling = inner;
  }
  take_color(sibling, parent);
  set_black(parent);
  set_black(sibling->*other(side));
  rotate(parent, side, root);
  return true;
}

// Restores the balance after the place of `node`, which may be NULL, below `parent` has lost a black node.
void repair_erase(Node* node, Node* parent, Root* root) {
  while (!is_red_child(node) && parent != nullptr) {
    if (make_up(parent, side_of(node, parent), root)) {
      return;
    }
    node = parent;
    parent = parent_of(node);
  }
  if (node != nullptr) {
    set_black(node);
  }
}

template <Side kSide>
Node* extreme(Node* node) {
  while (node != nullptr && node->*kSide != nullptr) {
    node = node->*kSide;
  }
  return node;
}

template <Side kSide>
Node* neighbour(const Node* node) {
  const Node* parent = parent_of(node);
  if (parent == node) {
    return nullptr;
  }
  if (node->*kSide != nullptr) {
    return extreme<other(kSide)>(node->*kSide);
  }
  while (parent != nullptr && node == parent->*kSide) {
    node = parent;
    parent = parent_of(node);
  }
  return const_cast<Node*>(parent);
}

// Calls the function for each node from `node` up to the root, and for the sibling of each.
void augment_path(Node* node, kesa_rb_augment_fn function, void* data) {
  for (;;) {
    function(node, data);
    Node* const parent = parent_of(node);
    if (parent == nullptr) {
      return;
    }
    // For a right child without a sibling, this calls the function for `node` once more. That stays, because users
    // may rely on the sequence of calls.
    if (node == parent->right && parent->left != nullptr) {
      function(parent->left, data);
    } else if (parent->right != nullptr) {
      function(parent->right, data);
    }
    node = parent;
  }
}

}  // namespace

void kesa_rb_insert_color(kesa_rb_node* node, kesa_rb_root* root) {
  Node* parent = parent_of(node);
  while (parent != nullptr && is_red(parent)) {
    Node* const grandparent = parent_of(parent);
    const Side side = side_of(parent, grandparent);
    Node* const uncle = grandparent->*other(side);
    if (!is_red_child(uncle)) {
      if (node == parent->*other(side)) {
        rotate(parent, side, root);
        parent = node;
      }
      set_black(parent);
      set_red(grandparent);
      rotate(grandparent, other(side), root);
      break;
    }
    set_black(parent);
    set_black(uncle);
    set_red(grandparent);
    node = grandparent;
    parent = parent_of(node);
  }
  set_black(root->node);
}

void kesa_rb_erase(kesa_rb_node* node, kesa_rb_root* root) {
  Node* parent = parent_of(node);
  Node* child = node->left == nullptr ? node->right : node->left;
  bool was_black = !is_red(node);
  if (node->left == nullptr || node->right == nullptr) {
    replace_child(parent, node, child, root);
  } else {
    Node* const successor = extreme<&Node::left>(node->right);
    replace_child(parent, node, successor, root);
    parent = parent_of(successor);
    child = successor->right;
    was_black = !is_red(successor);
    take_place(successor, node);
    successor->left = node->left;
    set_parent(node->left, successor);
    if (parent == node) {
      parent = successor;
    } else {
      parent->left = child;
      successor->right = node->right;
      set_parent(node->right, successor);
    }
  }
  if (child != nullptr) {
    set_parent(child, parent);
  }
  if (was_black) {
    repair_erase(child, parent, root);
  }
}

kesa_rb_node* kesa_rb_first(const kesa_rb_root* root) { return extreme<&Node::left>(root->node); }

kesa_rb_node* kesa_rb_last(const kesa_rb_root* root) { return extreme<&Node::right>(root->node); }

kesa_rb_node* kesa_rb_next(const kesa_rb_node* node) { return neighbour<&Node::right>(node); }

kesa_rb_node* kesa_rb_prev(const kesa_rb_node* node) { return neighbour<&Node::left>(node); }

void kesa_rb_replace_node(kesa_rb_node* old, kesa_rb_node* node, kesa_rb_root* root) {
  replace_child(parent_of(old), old, node, root);
  for (Node* const child : {old->left, old->right}) {
    if (child != nullptr) {
      set_parent(child, node);
    }
  }
  *node = *old;
}

void kesa_rb_augment_insert(kesa_rb_node* node, kesa_rb_augment_fn function, void* data) {
  if (node->left != nullptr) {
    node = node->left;
  } else if (node->right != nullptr) {
    node = node->right;
  }
  augment_path(node, function, data);
}

kesa_rb_node* kesa_rb_augment_erase_begin(const kesa_rb_node* node) {
  if (node->left == nullptr && node->right == nullptr) {
    return parent_of(node);
  }
  if (node->left == nullptr || node->right == nullptr) {
    return node->left == nullptr ? node->right : node->left;
  }
  Node* const successor = extreme<&Node::left>(node->right);
  if (successor->right != nullptr) {
    return successor->right;
  }
  Node* const parent = parent_of(successor);
  return parent == node ? successor : parent;
}

void kesa_rb_augment_erase_end(kesa_rb_node* node, kesa_rb_augment_fn function, void* data) {
  if (node != nullptr) {
    augment_path(node, function, data);
  }
}
