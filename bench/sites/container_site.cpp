#include "sites/container_site.h"

#include <compare>

#include "tirn/containers.hpp"

namespace {

using namespace tirn;

template <class Node>
struct Object {
  Node node;
  uint64_t key;
};

struct ByKey {
  template <class Node>
  auto operator()(uint64_t key, const Object<Node>& object) const {
    return key <=> object.key;
  }
  template <class Node>
  auto operator()(const Object<Node>& a, const Object<Node>& b) const {
    return a.key <=> b.key;
  }
};

using RbObject = Object<kesa_rb_node>;
using AvlObject = Object<kesa_avl_node>;

template <class Type>
void begin(void* object, uint64_t key) {
  static_assert(sizeof(Type) <= PEER_OBJECT_SIZE);
  static_cast<Type*>(object)->key = key;
}

template <class Type, class Set>
struct Tree {
  static inline Set* set;
  static void make(uint32_t) { set = new Set; }
  static void insert(void* object, uint64_t) { set->insert(*static_cast<Type*>(object)); }
  static void* find(uint64_t key) { return set->find(key); }
  static void* next(void* object) { return set->next(*static_cast<Type*>(object)); }
  static void erase(void* object, uint64_t) { set->erase(*static_cast<Type*>(object)); }
  static constexpr peer_set calls(const char* name) { return {name, make, begin<Type>, insert, find, next, erase}; }
};
using Rb = Tree<RbObject, RbTree<&RbObject::node, ByKey>>;
using TypedAvl = Tree<AvlObject, AvlTree<&AvlObject::node, ByKey>>;

namespace avl {
kesa_avl_tree tree;

int compare_objects(const void* a, const void* b, uint64_t) {
  const uint64_t key = static_cast<const AvlObject*>(a)->key;
  const uint64_t other = static_cast<const AvlObject*>(b)->key;
  return (key > other) - (key < other);
}

int compare_key(const void* a, const void* b, uint64_t) {
  const uint64_t key = *static_cast<const uint64_t*>(a);
  const uint64_t other = static_cast<const AvlObject*>(b)->key;
  return (key > other) - (key < other);
}

void make(uint32_t) {
  kesa_create_avl_new(&tree, compare_objects, compare_key, sizeof(AvlObject), offsetof(AvlObject, node));
}
void insert(void* object, uint64_t) { kesa_add_avl_node(&tree, object); }
void* find(uint64_t key) { return kesa_find_avl_node(&tree, &key, nullptr); }
void* next(void* object) { return kesa_walk_avl_node(&tree, object, KESA_AVL_RIGHT); }
void erase(void* object, uint64_t) { kesa_remove_avl_node(&tree, object); }
}  // namespace avl

namespace hash {
kesa_hash_table* table;

void make(uint32_t bits) { kesa_hash_create(1u << bits, &table, 0); }
void begin(void* object, uint64_t key) {
  auto* const node = static_cast<kesa_hash_node*>(object);
  node->key = key;
  node->keyType = 0;
}
void insert(void* object, uint64_t) { kesa_hash_insert(table, static_cast<kesa_hash_node*>(object)); }
void* find(uint64_t key) {
  kesa_hash_node* node;
  kesa_hash_search(table, 0, key, &node);
  return node;
}
void erase(void*, uint64_t key) { kesa_hash_delete(table, 0, key, nullptr); }
}  // namespace hash

}  // namespace

constinit const peer_set site_rb = Rb::calls("kesa_rb_*, descent by the caller");
constinit const peer_set site_avl = {"kesa_*_avl_node", avl::make, begin<AvlObject>, avl::insert,
                                     avl::find,         avl::next, avl::erase};
constinit const peer_set site_typed_avl = TypedAvl::calls("tirn::AvlTree");
constinit const peer_set site_hash = {"kesa_hash_*", hash::make, hash::begin, hash::insert,
                                      hash::find,    nullptr,    hash::erase};
