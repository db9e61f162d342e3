// The trees and the hash table as C++ types over objects that embed their nodes. They add no memory and no work to
// the C functions, which may be called on native() as well.
//
//   struct Timer { uint64_t expires; kesa_rb_node node; };
//   struct ByExpiry {
//     auto operator()(uint64_t expires, const Timer& timer) const { return expires <=> timer.expires; }
//     auto operator()(const Timer& a, const Timer& b) const { return a.expires <=> b.expires; }
//   };
//   tirn::RbTree<&Timer::node, ByExpiry> timers;
//
// The body of a loop `for (Timer& timer : timers)` may erase and free its object. Containers own no objects.
#ifndef TIRN_CONTAINERS_HPP
#define TIRN_CONTAINERS_HPP

#include <string.h>

#include "tirn/avl.h"
#include "tirn/hash.h"
#include "tirn/rbtree.h"

namespace tirn {

// Converts between an object and its member.
template <auto kMember>
struct Embedded;
template <class ObjectType, class NodeType, NodeType ObjectType::*kMember>
struct Embedded<kMember> {
  using Object = ObjectType;
  using Node = NodeType;

  // The ABI represents a pointer to a data member by its offset, so this is a constant to the compiler.
  static uint32_t offset() {
    NodeType ObjectType::*const member = kMember;
    ptrdiff_t bytes;
    static_assert(sizeof bytes == sizeof member);
    memcpy(&bytes, &member, sizeof bytes);
    return static_cast<uint32_t>(bytes);
  }
  static Node* node_of(const Object* object) { return const_cast<Node*>(&(object->*kMember)); }
  static Object* object_of(const Node* node) {
    return node == nullptr ? nullptr : reinterpret_cast<Object*>(reinterpret_cast<uintptr_t>(node) - offset());
  }
};

template <auto kMember>
auto* container_of(const typename Embedded<kMember>::Node* node) {
  return Embedded<kMember>::object_of(node);
}

// Walks a tree in order. The next object is found before the loop's body sees this one.
template <class Tree>
class TreeIterator {
 public:
  using Object = typename Tree::Object;
  TreeIterator(const Tree* tree, Object* object)
      : tree_(tree), object_(object), next_(object == nullptr ? nullptr : tree->next(*object)) {}
  Object& operator*() const { return *object_; }
  bool operator!=(const TreeIterator& other) const { return object_ != other.object_; }
  void operator++() { *this = TreeIterator(tree_, next_); }

 private:
  const Tree* tree_;
  Object* object_;
  Object* next_;
};

// A red-black tree. Order compares a key, or an object, with an object. Its result is below, equal to or above 0: an
// integer, or what <=> gives. Order has no state.
template <auto kNode, class Order>
class RbTree {
  using Member = Embedded<kNode>;

 public:
  using Object = typename Member::Object;

  constexpr RbTree() = default;
  RbTree(const RbTree&) = delete;
  RbTree& operator=(const RbTree&) = delete;

  bool empty() const { return root_.node == nullptr; }
  Object* first() const { return Member::object_of(kesa_rb_first(&root_)); }
  Object* last() const { return Member::object_of(kesa_rb_last(&root_)); }
  Object* next(const Object& object) const { return Member::object_of(kesa_rb_next(Member::node_of(&object))); }
  Object* prev(const Object& object) const { return Member::object_of(kesa_rb_prev(Member::node_of(&object))); }
  TreeIterator<RbTree> begin() const { return {this, first()}; }
  TreeIterator<RbTree> end() const { return {this, nullptr}; }

  // Finds the object that is equal to the key.
  // @returns the object, or nullptr if there is none.
  template <class Key>
  Object* find(const Key& key) const {
    kesa_rb_node* node = root_.node;
    while (node != nullptr) {
      const auto order = Order{}(key, static_cast<const Object&>(*Member::object_of(node)));
      if (order == 0) {
        break;
      }
      node = order > 0 ? node->right : node->left;
    }
    return Member::object_of(node);
  }

  // Inserts the object unless the tree holds an equal one.
  // @returns true if it was inserted, false if not.
  bool insert(Object& object) {
    kesa_rb_node* parent = nullptr;
    bool is_right = false;
    for (kesa_rb_node* node = root_.node; node != nullptr;) {
      const auto order = Order{}(static_cast<const Object&>(object), *Member::object_of(node));
      if (order == 0) {
        return false;
      }
      parent = node;
      node = order > 0 ? node->right : node->left;
      is_right = order > 0;
    }
    kesa_rb_node** const link = parent == nullptr ? &root_.node : is_right ? &parent->right : &parent->left;
    kesa_rb_link_node(Member::node_of(&object), parent, link);
    kesa_rb_insert_color(Member::node_of(&object), &root_);
    return true;
  }

  void erase(Object& object) { kesa_rb_erase(Member::node_of(&object), &root_); }
  // Puts `object`, which must compare equal to `old`, in the place of `old`.
  void replace(Object& old, Object& object) {
    kesa_rb_replace_node(Member::node_of(&old), Member::node_of(&object), &root_);
  }
  kesa_rb_root* native() { return &root_; }

 private:
  kesa_rb_root root_ = {};
};

// An AVL tree. Its branches differ less in height than those of a red-black tree. C code searches native() by a Key.
template <auto kNode, class Order, class Key = typename Embedded<kNode>::Object>
class AvlTree {
  using Member = Embedded<kNode>;

 public:
  using Object = typename Member::Object;

  AvlTree() { kesa_create_avl_new(&tree_, compare<Object>, compare<Key>, sizeof(Object), Member::offset()); }
  AvlTree(const AvlTree&) = delete;
  AvlTree& operator=(const AvlTree&) = delete;

  bool empty() const { return tree_.root == nullptr; }
  uint64_t size() const { return tree_.nodeCount; }
  Object* first() const { return static_cast<Object*>(kesa_get_avl_first_node(&tree_)); }
  Object* last() const { return static_cast<Object*>(kesa_get_avl_last_node(&tree_)); }
  Object* next(const Object& object) const { return walk(object, KESA_AVL_RIGHT); }
  Object* prev(const Object& object) const { return walk(object, KESA_AVL_LEFT); }
  TreeIterator<AvlTree> begin() const { return {this, first()}; }
  TreeIterator<AvlTree> end() const { return {this, nullptr}; }

  // Finds the object that is equal to the key.
  // @returns the object, or nullptr if there is none.
  template <class AnyKey>
  Object* find(const AnyKey& key) const {
    uint64_t position;
    return search(key, position);
  }

  // Inserts the object unless the tree holds an equal one.
  // @returns true if it was inserted, false if not.
  bool insert(Object& object) {
    uint64_t position;
    if (search(object, position) != nullptr) {
      return false;
    }
    kesa_insert_avl_node(&tree_, &object, position);
    return true;
  }

  void erase(Object& object) { kesa_remove_avl_node(&tree_, &object); }
  kesa_avl_tree* native() { return &tree_; }

 private:
  template <class AnyKey>
  static int compare(const void* key, const void* object, uint64_t) {
    const auto order = Order{}(*static_cast<const AnyKey*>(key), *static_cast<const Object*>(object));
    return (order > 0) - (order < 0);
  }

  // A node's children as two fields: compilers choose between fields without a branch.
  struct __attribute__((may_alias)) Below {
    const kesa_avl_node* left;
    const kesa_avl_node* right;
  };

  // Does the work of kesa_find_avl_node with the comparison inlined.
  template <class AnyKey>
  Object* search(const AnyKey& key, uint64_t& position) const {
    const kesa_avl_node* parent = nullptr;
    bool is_right = false;
    for (const kesa_avl_node* node = tree_.root; node != nullptr;) {
      Object* const object = Member::object_of(node);
      const auto order = Order{}(key, static_cast<const Object&>(*object));
      if (order == 0) {
        return object;
      }
      parent = node;
      const auto* const below = reinterpret_cast<const Below*>(node->child);
      node = order > 0 ? below->right : below->left;
      is_right = order > 0;
    }
    position = reinterpret_cast<uintptr_t>(parent) | (is_right ? 1u : 0u);
    return nullptr;
  }

  Object* walk(const Object& object, uint32_t direction) const {
    return static_cast<Object*>(kesa_walk_avl_node(&tree_, &object, direction));
  }

  kesa_avl_tree tree_;
};

// A hash table. The nodes of its objects hold the keys. Objects that are still in the table must outlive it, as its
// destructor unlinks them.
template <auto kNode>
class HashTable {
  using Member = Embedded<kNode>;

 public:
  using Object = typename Member::Object;

  HashTable() = default;
  HashTable(const HashTable&) = delete;
  HashTable& operator=(const HashTable&) = delete;
  ~HashTable() { kesa_hash_destory(table_, nullptr); }

  // Makes the table. Call it once, before all other functions.
  // @returns the result of kesa_hash_create_ex.
  int create(uint32_t buckets, uint32_t pid, kesa_hash_attr* attr = nullptr) {
    return kesa_hash_create_ex(buckets, &table_, pid, attr);
  }

  // Inserts the object unless the table holds one with the same key, or create has not succeeded.
  // @returns true if it was inserted, false if not.
  bool insert(Object& object) { return kesa_hash_insert(table_, Member::node_of(&object)) == 0; }

  // Finds the object with this key.
  // @returns the object, or nullptr if there is none.
  Object* find(uint32_t key_type, uint64_t key) const {
    kesa_hash_node* node = nullptr;
    kesa_hash_search(table_, key_type, key, &node);
    return Member::object_of(node);
  }

  // Takes the object with this key out of the table.
  // @returns the object, or nullptr if there is none.
  Object* erase(uint32_t key_type, uint64_t key) {
    kesa_hash_node* node = nullptr;
    kesa_hash_delete(table_, key_type, key, &node);
    return Member::object_of(node);
  }

  // Calls visit(object) for each object until it returns a number other than 0. It may take the object out of the
  // table.
  // @returns that number, or 0; -EINVAL if create has not succeeded.
  template <class Visit>
  int for_each(Visit visit) {
    return kesa_hash_for_each_ex(
        table_,
        [](kesa_hash_node* node, void* arg) -> int { return (*static_cast<Visit*>(arg))(*Member::object_of(node)); },
        &visit, 1);
  }

  kesa_hash_table* native() { return table_; }

 private:
  kesa_hash_table* table_ = nullptr;
};

}  // namespace tirn

#endif
