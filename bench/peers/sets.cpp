// Calls the trees and hash tables of other libraries.
#include <cstring>
#include <new>
#include <unordered_map>
#include <vector>

#include "peers/peers.h"

#ifdef PEERS_BOOST
#include <boost/intrusive/avl_set.hpp>
#include <boost/intrusive/set.hpp>
#include <boost/intrusive/unordered_set.hpp>
#endif
#ifdef PEERS_GLIB
#include <glib.h>
#endif

namespace {

#ifdef PEERS_BOOST
namespace bi = boost::intrusive;

template <class Hook>
struct Object : Hook {
  explicit Object(uint64_t number) : key(number) {}
  bool operator==(const Object& other) const { return key == other.key; }
  uint64_t key;
};

template <class Type>
struct KeyOf {
  using type = uint64_t;
  const type& operator()(const Type& object) const { return object.key; }
};

using Link = bi::link_mode<bi::normal_link>;
using RbObject = Object<bi::set_base_hook<Link, bi::optimize_size<true>>>;
using AvlObject = Object<bi::avl_set_base_hook<Link>>;
using HashObject = Object<bi::unordered_set_base_hook<Link>>;

template <class Type>
void begin(void* object, uint64_t key) {
  static_assert(sizeof(Type) <= PEER_OBJECT_SIZE);
  new (object) Type(key);
}

template <class Type, class Set>
struct Tree {
  static inline Set* set;
  static void make(uint32_t) { set = new Set; }
  static void insert(void* object, uint64_t) { set->insert(*static_cast<Type*>(object)); }
  static void* find(uint64_t key) {
    const auto at = set->find(key);
    return at == set->end() ? nullptr : &*at;
  }
  static void* next(void* object) {
    const auto at = ++set->iterator_to(*static_cast<Type*>(object));
    return at == set->end() ? nullptr : &*at;
  }
  static void erase(void* object, uint64_t) { set->erase(set->iterator_to(*static_cast<Type*>(object))); }
  static constexpr peer_set calls(const char* name) { return {name, make, begin<Type>, insert, find, next, erase}; }
};
using Rb = Tree<RbObject, bi::set<RbObject, bi::key_of_value<KeyOf<RbObject>>>>;
using Avl = Tree<AvlObject, bi::avl_set<AvlObject, bi::key_of_value<KeyOf<AvlObject>>>>;

// Compares through a pointer that the compiler cannot see through, as in a library.
struct ByPointer {
  static bool less(uint64_t a, uint64_t b) { return a < b; }
  static inline bool (*volatile compare)(uint64_t, uint64_t) = less;
  bool (*chosen)(uint64_t, uint64_t) = compare;
  bool operator()(uint64_t a, uint64_t b) const { return chosen(a, b); }
};
using AvlByPointer =
    Tree<AvlObject, bi::avl_set<AvlObject, bi::key_of_value<KeyOf<AvlObject>>, bi::compare<ByPointer>>>;

struct Identity {
  static void set_bits(uint32_t) {}
  size_t operator()(uint64_t key) const { return key; }
};

// Our hash function, which spreads random keys less evenly.
struct Product {
  static inline uint32_t shift;
  static void set_bits(uint32_t bits) { shift = 64 - bits; }
  size_t operator()(uint64_t key) const { return (key & UINT32_MAX) * 0x9E37FFFFFFFC0001 >> shift; }
};

template <class Hasher>
struct Hash {
  using Set = bi::unordered_set<HashObject, bi::key_of_value<KeyOf<HashObject>>, bi::hash<Hasher>,
                                bi::power_2_buckets<true>, bi::constant_time_size<false>>;
  static inline Set* set;
  static void make(uint32_t bits) {
    Hasher::set_bits(bits);
    auto* const buckets = new std::vector<typename Set::bucket_type>(size_t{1} << bits);
    set = new Set(typename Set::bucket_traits(buckets->data(), buckets->size()));
  }
  static void insert(void* object, uint64_t) { set->insert(*static_cast<HashObject*>(object)); }
  static void* find(uint64_t key) {
    const auto at = set->find(key);
    return at == set->end() ? nullptr : &*at;
  }
  static void erase(void*, uint64_t key) { set->erase(key); }
  static constexpr peer_set calls(const char* name) {
    return {name, make, begin<HashObject>, insert, find, nullptr, erase};
  }
};
#endif

void leave(void*, uint64_t) {}

// The nodes of the map are the objects: link, key and rest together have the size of an object.
struct StdMap {
  struct Rest {
    uint64_t words[PEER_OBJECT_SIZE / 8 - 2];
  };
  static inline std::unordered_map<uint64_t, Rest>* map;
  static void make(uint32_t bits) {
    map = new std::unordered_map<uint64_t, Rest>;
    map->reserve(size_t{1} << bits);
  }
  static void insert(void*, uint64_t key) { map->try_emplace(key); }
  static void* find(uint64_t key) {
    const auto at = map->find(key);
    return at == map->end() ? nullptr : &at->second;
  }
  static void erase(void*, uint64_t key) { map->erase(key); }
};

#ifdef PEERS_GLIB
struct Glib {
  static inline GHashTable* table;
  static void make(uint32_t) { table = g_hash_table_new(g_int64_hash, g_int64_equal); }
  static void begin(void* object, uint64_t key) { *static_cast<uint64_t*>(object) = key; }
  static void insert(void* object, uint64_t) { g_hash_table_insert(table, object, object); }
  static void* find(uint64_t key) { return g_hash_table_lookup(table, &key); }
  static void erase(void*, uint64_t key) { g_hash_table_remove(table, &key); }
};
#endif

const peer_set sets[] = {
#ifdef PEERS_BOOST
    Rb::calls("boost::intrusive::set"),
    Avl::calls("boost::intrusive::avl_set"),
    AvlByPointer::calls("avl_set, comparing by pointer"),
    Hash<Identity>::calls("boost::intrusive::unordered_set"),
    Hash<Product>::calls("the same with our hash"),
#endif
    {"std::unordered_map", StdMap::make, leave, StdMap::insert, StdMap::find, nullptr, StdMap::erase},
#ifdef PEERS_GLIB
    {"GHashTable", Glib::make, Glib::begin, Glib::insert, Glib::find, nullptr, Glib::erase},
#endif
};

}  // namespace

const peer_set* peer_set_named(const char* name) {
  for (const peer_set& set : sets) {
    if (std::strcmp(set.name, name) == 0) {
      return &set;
    }
  }
  return nullptr;
}
