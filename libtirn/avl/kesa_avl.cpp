// Implements the height-balanced tree of tirn/avl.h.
#include <cstdint>

#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "tirn/avl.h"

using namespace tirn;

namespace {

using Node = kesa_avl_node;
using Tree = kesa_avl_tree;

Node* node_of(const Tree* tree, const void* object) {
  return reinterpret_cast<Node*>(reinterpret_cast<uintptr_t>(object) + tree->offset);
}

void* object_of(const Tree* tree, Node* node) { return reinterpret_cast<char*>(node) - tree->offset; }

// A position (the public `cookie`) is the address of a parent node, with the side of the child in the lowest bit.
constexpr uint64_t kEmptyPosition = 0;

uint64_t position_of(const Node* parent, uint32_t side) { return reinterpret_cast<uintptr_t>(parent) | side; }
Node* parent_at(uint64_t position) { return reinterpret_cast<Node*>(position & ~uint64_t{1}); }
uint32_t side_at(uint64_t position) { return static_cast<uint32_t>(position & 1); }

// Logs a NULL pointer given to `function`, at any log level. Returns `is_null`.
bool reports_null(const char* function, bool is_null) {
  if (is_null) {
    TIRN_ERROR_ALWAYS_AS(function, "NULL POINTER");
  }
  return is_null;
}

// Returns the object equal to the key. If there is none, returns NULL and stores the position where such an object
// belongs, if `cookie` is not NULL. If the compare function answers neither -1, 0 nor 1, the search fails and stores
// the position in an empty tree.
void* search(const Tree* tree, const void* key, uint64_t* cookie, bool is_key) {
  if (reports_null("find_val_node", tree == nullptr)) {
    return nullptr;
  }
  const kesa_avl_compare_fn compare = is_key ? tree->findCompare : tree->addCompare;
  Node* parent = nullptr;
  int order = 0;
  for (Node* node = tree->root; node != nullptr;) {
    // Load both children before the call, so that the choice after it needs neither a branch nor a load: no branch
    // predictor can know which side a search takes. In a large tree, the cache lines of the next level arrive while
    // the compare function runs.
    Node* const left = node->child[0];
    Node* const right = node->child[1];
    __builtin_prefetch(left);
    __builtin_prefetch(right);
    void* const object = object_of(tree, node);
    order = compare(key, object, 0);
    if (order != -1 && order != 1) {
      if (order == 0) {
        return object;
      }
      parent = nullptr;
      break;
    }
    parent = node;
    node = order > 0 ? right : left;
  }
  if (cookie != nullptr) {
    *cookie = position_of(parent, order == 1 ? 1 : 0);
  }
  return nullptr;
}

Node* extreme(Node* node, uint32_t side) {
  while (node->child[side] != nullptr) {
    node = node->child[side];
  }
  return node;
}

Node* neighbour(Node* node, uint32_t side) {
  if (node->child[side] != nullptr) {
    return extreme(node->child[side], 1 - side);
  }
  while (node->parent != nullptr && node->childIndex == side) {
    node = node->parent;
  }
  return node->parent;
}

void* end_of(const Tree* tree, uint32_t side) {
  return tree->root == nullptr ? nullptr : object_of(tree, extreme(tree->root, side));
}

// Makes `child`, which may be NULL, the child of `parent` on this side.
void hang(Node* parent, uint32_t side, Node* child) {
  parent->child[side] = child;
  if (child != nullptr) {
    child->parent = parent;
    child->childIndex = side;
  }
}

// Puts `child`, which may be NULL, in the place of `node`: below its parent, or at the root.
void replace(Tree* tree, const Node* node, Node* child) {
  if (node->parent != nullptr) {
    hang(node->parent, node->childIndex, child);
  } else {
    tree->root = child;
    if (child != nullptr) {
      child->parent = nullptr;
    }
  }
}

// Returns what one more level on this side adds to the balance of the node above.
int32_t lean(uint32_t side) { return side == 0 ? -1 : 1; }

// Rotates `node`, whose balance would otherwise be 2 * d. Returns true if that made the subtree shorter.
bool rotate(Tree* tree, Node* node, int32_t d) {
  const uint32_t heavy = d > 0 ? 1 : 0;
  const uint32_t light = 1 - heavy;
  Node* const c = node->child[heavy];
  if (c->balance != -d) {
    replace(tree, node, c);
    hang(node, heavy, c->child[light]);
    hang(c, light, node);
    const bool shorter = c->balance != 0;
    c->balance = shorter ? 0 : -d;
    node->balance = shorter ? 0 : d;
    return shorter;
  }
  Node* const g = c->child[light];
  replace(tree, node, g);
  hang(c, light, g->child[heavy]);
  hang(node, heavy, g->child[light]);
  hang(g, heavy, c);
  hang(g, light, node);
  c->balance = g->balance == -d ? d : 0;
  node->balance = g->balance == d ? -d : 0;
  g->balance = 0;
  return true;
}

// A subtree: that of `above` on this side.
struct Place {
  Node* above;
  uint32_t side;
};

// Takes a node out of the tree. Returns the subtree that became shorter; `above` is NULL if that is the whole tree.
Place take_out(Tree* tree, Node* node) {
  Place shorter{node->parent, node->childIndex};
  if (node->child[0] == nullptr || node->child[1] == nullptr) {
    replace(tree, node, node->child[0] != nullptr ? node->child[0] : node->child[1]);
    return shorter;
  }
  // The nearest object on the taller side takes the place of `node`. It has at most one child.
  const uint32_t near = node->balance > 0 ? 1 : 0;
  Node* const other = extreme(node->child[near], 1 - near);
  shorter = {other->parent, other->childIndex};
  if (shorter.above == node) {
    shorter.above = other;
  } else {
    hang(shorter.above, shorter.side, other->child[near]);
    hang(other, near, node->child[near]);
  }
  replace(tree, node, other);
  hang(other, 1 - near, node->child[1 - near]);
  other->balance = node->balance;
  return shorter;
}

// Corrects the balances from a subtree that became shorter up to the first one that keeps its height.
void correct_shorter(Tree* tree, Place shorter) {
  while (shorter.above != nullptr) {
    Node* const node = shorter.above;
    const int32_t delta = lean(shorter.side);
    shorter = {node->parent, node->childIndex};
    if (node->balance == 0) {
      node->balance = -delta;
      return;
    }
    if (node->balance == delta) {
      node->balance = 0;
    } else if (!rotate(tree, node, -delta)) {
      return;
    }
  }
}

}  // namespace

int kesa_create_avl(kesa_avl_tree* tree, kesa_avl_compare_fn compare, uint32_t size, uint32_t offset) {
  if (reports_null(__func__, tree == nullptr || compare == nullptr)) {
    return kFail;
  }
  *tree = {nullptr, compare, compare, offset, size, 0};
  return kOk;
}

int kesa_create_avl_new(kesa_avl_tree* tree, kesa_avl_compare_fn add_compare, kesa_avl_compare_fn find_compare,
                        uint32_t size, uint32_t offset) {
  if (reports_null(__func__, tree == nullptr || add_compare == nullptr || find_compare == nullptr)) {
    return kFail;
  }
  *tree = {nullptr, add_compare, find_compare, offset, size, 0};
  return kOk;
}

int kesa_destroy_avl(kesa_avl_tree* tree) {
  if (reports_null(__func__, tree == nullptr)) {
    return kFail;
  }
  tree->root = nullptr;
  tree->nodeCount = 0;
  return kOk;
}

void* kesa_find_avl_node(const kesa_avl_tree* tree, const void* key, uint64_t* cookie) {
  return search(tree, key, cookie, true);
}

void* kesa_find_avl_nearest_node(const kesa_avl_tree* tree, uint64_t cookie, uint32_t direction) {
  if (reports_null(__func__, tree == nullptr)) {
    return nullptr;
  }
  Node* const parent = parent_at(cookie);
  if (parent == nullptr) {
    return nullptr;
  }
  void* const object = object_of(tree, parent);
  return side_at(cookie) == direction ? kesa_walk_avl_node(tree, object, direction) : object;
}

int kesa_insert_avl_node(kesa_avl_tree* tree, void* object, uint64_t cookie) {
  if (reports_null(__func__, tree == nullptr || object == nullptr)) {
    return kFail;
  }
  Node* const node = node_of(tree, object);
  Node* above = parent_at(cookie);
  uint32_t side = side_at(cookie);
  ++tree->nodeCount;
  *node = {{nullptr, nullptr}, above, side, 0};
  (above == nullptr ? tree->root : above->child[side]) = node;
  for (; above != nullptr; side = above->childIndex, above = above->parent) {
    const int32_t delta = lean(side);
    // Test this first: it does not depend on `side`, the result of the last comparison. The search after this insert
    // can then start while cache misses of a large tree are outstanding.
    if (above->balance == 0) {
      above->balance = delta;
      continue;
    }
    if (above->balance == -delta) {
      above->balance = 0;
      TIRN_DEBUG("Set AVL balance done.");
    } else {
      rotate(tree, above, delta);
    }
    break;
  }
  return kOk;
}

void kesa_add_avl_node(kesa_avl_tree* tree, void* object) {
  if (reports_null(__func__, tree == nullptr || object == nullptr)) {
    return;
  }
  uint64_t cookie = kEmptyPosition;
  if (search(tree, object, &cookie, false) != nullptr) {
    return;
  }
  // The search failed in a tree that has nodes: as the new root, the object would cut all of them off.
  const bool found_no_place = parent_at(cookie) == nullptr && tree->root != nullptr;
  if (found_no_place || kesa_insert_avl_node(tree, object, cookie) != kOk) {
    TIRN_ERROR("InsertAvlNode fail.");
  }
}

int kesa_insert_avl_node_specified(kesa_avl_tree* tree, void* object, void* here, uint32_t direction) {
  if (reports_null(__func__, tree == nullptr || here == nullptr)) {
    return kFail;
  }
  if (direction > 1) {
    return TIRN_ERROR("Invalid Param"), kFail;
  }
  Node* const near = node_of(tree, here);
  const uint64_t cookie = near->child[direction] == nullptr
                              ? position_of(near, direction)
                              : position_of(extreme(near->child[direction], 1 - direction), 1 - direction);
  const int result = kesa_insert_avl_node(tree, object, cookie);
  if (result != kOk) {
    TIRN_ERROR("InsertAvlNode fail: avl_tree=%p, new_node=%p, here=%p, direction=%d.", static_cast<void*>(tree),
               object, here, static_cast<int>(direction));
  }
  return result;
}

void kesa_remove_avl_node(kesa_avl_tree* tree, void* object) {
  if (reports_null(__func__, tree == nullptr || object == nullptr)) {
    return;
  }
  --tree->nodeCount;
  const Place shorter = take_out(tree, node_of(tree, object));
  if (shorter.above == nullptr) {
    return TIRN_DEBUG("Remove node not need set balance.");
  }
  correct_shorter(tree, shorter);
}

void* kesa_walk_avl_node(const kesa_avl_tree* tree, const void* object, uint32_t direction) {
  if (tree == nullptr || object == nullptr || direction > 1) {
    return nullptr;
  }
  Node* const node = neighbour(node_of(tree, object), direction);
  return node == nullptr ? nullptr : object_of(tree, node);
}

void* kesa_get_avl_first_node(const kesa_avl_tree* tree) {
  if (reports_null(__func__, tree == nullptr)) {
    return nullptr;
  }
  return end_of(tree, KESA_AVL_LEFT);
}

void* kesa_get_avl_last_node(const kesa_avl_tree* tree) {
  if (reports_null(__func__, tree == nullptr)) {
    return nullptr;
  }
  return end_of(tree, KESA_AVL_RIGHT);
}

uint64_t kesa_get_avl_node_num(const kesa_avl_tree* tree) {
  if (reports_null(__func__, tree == nullptr)) {
    return ~uint64_t{0};
  }
  return tree->nodeCount;
}
