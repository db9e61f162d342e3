// Compiles the trees of tirn/containers.hpp into the program.
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
using Avl = Tree<AvlObject, AvlTree<&AvlObject::node, ByKey>>;

}  // namespace

constinit const peer_set site_rb = Rb::calls("kesa_rb_*, descent by the caller");
constinit const peer_set site_avl = Avl::calls("tirn::AvlTree");
