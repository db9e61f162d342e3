// Measures trees and hash tables.
#include <bit>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "peers/peers.h"
#include "sites/container_site.h"
#include "support/bench.h"
#include "support/data.h"
#include "tirn/avl.h"
#include "tirn/hash.h"

namespace tirn::bench {
namespace {

struct Pick {
  uint64_t key;
  void* object;
};

// Calls exported functions. Containers whose code is inlined into the program are measured through sites/.
struct AvlCalls {
  struct Object {
    kesa_avl_node node;
    uint64_t key;
  };
  static int compare(uint64_t key, const void* object) {
    const uint64_t other = static_cast<const Object*>(object)->key;
    return (key > other) - (key < other);
  }
  static int compare_object(const void* object, const void* other, uint64_t) {
    return compare(static_cast<const Object*>(object)->key, other);
  }
  static int compare_key(const void* key, const void* object, uint64_t) {
    return compare(*static_cast<const uint64_t*>(key), object);
  }

  static inline kesa_avl_tree tree;
  const char* name = "kesa_*_avl_node";
  static void make(uint32_t) {
    kesa_create_avl_new(&tree, compare_object, compare_key, sizeof(Object), offsetof(Object, node));
  }
  static void begin(void* object, uint64_t key) { static_cast<Object*>(object)->key = key; }
  static void insert(void* object, uint64_t) { kesa_add_avl_node(&tree, object); }
  static void* find(uint64_t key) { return kesa_find_avl_node(&tree, &key, nullptr); }
  static void* next(void* object) { return kesa_walk_avl_node(&tree, object, KESA_AVL_RIGHT); }
  static void erase(void* object, uint64_t) { kesa_remove_avl_node(&tree, object); }
};

struct HashCalls {
  static inline kesa_hash_table* table;
  const char* name = "kesa_hash_*";
  static void make(uint32_t bits) { kesa_hash_create(1u << bits, &table, 0); }
  static void begin(void* object, uint64_t key) { static_cast<kesa_hash_node*>(object)->key = key; }
  static void insert(void* object, uint64_t) { kesa_hash_insert(table, static_cast<kesa_hash_node*>(object)); }
  static void* find(uint64_t key) {
    kesa_hash_node* node;
    kesa_hash_search(table, 0, key, &node);
    return node;
  }
  static void* next(void*) { return nullptr; }
  static void erase(void*, uint64_t key) { kesa_hash_delete(table, 0, key, nullptr); }
};

// A container of the requested size and, if that is large, a stock of objects outside it. The object that was taken
// out longest ago is inserted first, so that its memory has left the caches.
template <class Calls>
class Bed {
 public:
  Bed(const Calls& calls, size_t size) : calls_(calls), batch_(std::min<size_t>(size, 4096)) {
    const size_t all = size + (size > batch_ ? 16 * batch_ : 0);
    memory_.reset(new (std::align_val_t{PEER_OBJECT_SIZE}) uint8_t[all * PEER_OBJECT_SIZE]());
    calls_.make(static_cast<uint32_t>(std::bit_width(size - 1)));
    std::vector<Pick> objects;
    for (size_t i = 0; i < all; ++i) {
      objects.push_back({random_numbers()(), memory_.get() + i * PEER_OBJECT_SIZE});
      calls_.begin(objects.back().object, objects.back().key);
    }
    shuffle(objects);
    in_.assign(objects.begin(), objects.begin() + static_cast<ptrdiff_t>(size));
    out_.assign(objects.begin() + static_cast<ptrdiff_t>(size), objects.end());
    for (const Pick& pick : in_) {
      calls_.insert(pick.object, pick.key);
    }
  }

  // Takes batches out and puts others in, and returns the time of one of the two.
  Sample churn(uint64_t count, bool is_insert) {
    Sample whole;
    for (uint64_t done = 0; done < count; done += batch_) {
      const size_t amount = std::min<uint64_t>(batch_, count - done);
      const std::vector<Pick> leaving = take_out(amount);
      const Sample erased = timed([&] {
        for (const Pick& pick : leaving) {
          calls_.erase(pick.object, pick.key);
        }
      });
      const std::vector<Pick> coming = take_in(amount);
      const Sample inserted = timed([&] {
        for (const Pick& pick : coming) {
          calls_.insert(pick.object, pick.key);
        }
      });
      add(whole, is_insert ? inserted : erased);
    }
    return whole;
  }

  Sample find(uint64_t count, bool is_hit) {
    Sample whole;
    for (uint64_t done = 0; done < count; done += batch_) {
      const size_t amount = std::min<uint64_t>(batch_, count - done);
      std::vector<uint64_t> keys(amount);
      for (uint64_t& key : keys) {
        key = is_hit ? in_[random_numbers()() % in_.size()].key : random_numbers()();
      }
      add(whole, timed([&] {
            for (const uint64_t key : keys) {
              benchmark::DoNotOptimize(calls_.find(key));
            }
          }));
    }
    return whole;
  }

  // Walks in order from a random object to the last one, then from another random object.
  Sample walk(uint64_t count) {
    void* object = nullptr;
    return timed([&] {
      for (uint64_t i = 0; i < count; ++i) {
        object = object == nullptr ? in_[random_numbers()() % in_.size()].object : calls_.next(object);
      }
    });
  }

 private:
  static void add(Sample& whole, const Sample& part) {
    whole.nanoseconds += part.nanoseconds;
    whole.disturbed |= part.disturbed;
  }

  std::vector<Pick> take_out(size_t amount) {
    std::vector<Pick> taken;
    for (size_t i = 0; i < amount; ++i) {
      std::swap(in_[random_numbers()() % in_.size()], in_.back());
      taken.push_back(in_.back());
      out_.push_back(in_.back());
      in_.pop_back();
    }
    return taken;
  }

  std::vector<Pick> take_in(size_t amount) {
    std::vector<Pick> taken(out_.begin(), out_.begin() + static_cast<ptrdiff_t>(amount));
    out_.erase(out_.begin(), out_.begin() + static_cast<ptrdiff_t>(amount));
    in_.insert(in_.end(), taken.begin(), taken.end());
    return taken;
  }

  struct Free {
    void operator()(uint8_t* bytes) const { ::operator delete[](bytes, std::align_val_t{PEER_OBJECT_SIZE}); }
  };
  const Calls calls_;
  size_t batch_;
  std::unique_ptr<uint8_t[], Free> memory_;
  std::vector<Pick> in_;
  std::deque<Pick> out_;
};

enum Operation { kInsert, kFind, kFindNothing, kWalk, kErase };
constexpr const char* kNames[] = {"insert", "find", "find_nothing", "walk", "erase"};

template <class Calls>
Sample measure(Bed<Calls>& bed, Operation operation, uint64_t count) {
  switch (operation) {
    case kInsert:
    case kErase:
      return bed.churn(count, operation == kInsert);
    case kFind:
    case kFindNothing:
      return bed.find(count, operation == kFind);
    default:
      return bed.walk(count);
  }
}

// Makes the container at the first measurement, and so in the group's own process.
template <class Calls>
Row row(const Calls& calls, Operation operation, size_t size) {
  auto bed = std::make_shared<std::unique_ptr<Bed<Calls>>>();
  return {calls.name, [bed, calls, operation, size](uint64_t count) {
            if (*bed == nullptr) {
              *bed = std::make_unique<Bed<Calls>>(calls, size);
            }
            return measure(**bed, operation, count);
          }};
}

template <const peer_set& kSet>
Row site_row(Operation operation, size_t size) {
  return row(kSet, operation, size);
}

template <class Calls>
Row direct_row(Operation operation, size_t size) {
  return row(Calls(), operation, size);
}

template <const char* kName>
Row peer_row(Operation operation, size_t size) {
  return row(*peer_set_named(kName), operation, size);
}
constexpr char kSameHash[] = "the same with our hash";
constexpr char kByPointer[] = "avl_set, comparing by pointer";

struct Contest {
  const char* name;
  Row (*ours)(Operation operation, size_t size);
  double target;
  std::vector<const char*> peers;
  std::vector<Operation> operations;
  std::vector<Row (*)(Operation operation, size_t size)> shown = {};
};

std::vector<Group> groups_of(const Contest& contest) {
  std::vector<Group> groups;
  for (const size_t size : {1000, 1000000}) {
    for (const Operation operation : contest.operations) {
      Group group{
          .name = std::string("containers/") + contest.name + '/' + kNames[operation] + '/' + std::to_string(size),
          .target = contest.target,
          .ours = contest.ours(operation, size)};
      for (const char* const name : contest.peers) {
        if (const peer_set* const peer = peer_set_named(name); peer != nullptr) {
          group.peers.push_back(row(*peer, operation, size));
        }
      }
      if (group.peers.empty()) {
        group.target = 0;
      } else {
        for (const auto shown : contest.shown) {
          group.shown.push_back(shown(operation, size));
        }
      }
      groups.push_back(group);
    }
  }
  return groups;
}

const Family containers{[] {
  const std::vector<Operation> all{kInsert, kFind, kFindNothing, kWalk, kErase};
  std::vector<Group> groups;
  for (const Contest& contest : {
           Contest{"rb", site_row<site_rb>, 1.0, {"boost::intrusive::set"}, all},
           Contest{"avl", direct_row<AvlCalls>, 1.05, {"boost::intrusive::avl_set"}, all, {peer_row<kByPointer>}},
           Contest{"avl_typed", site_row<site_avl>, 1.05, {"boost::intrusive::avl_set"}, all},
           Contest{"hash",
                   direct_row<HashCalls>,
                   1.5,
                   {"boost::intrusive::unordered_set"},
                   {kInsert, kFind, kFindNothing, kErase},
                   {peer_row<kSameHash>}},
           Contest{"hash_maps", direct_row<HashCalls>, 0.8, {"std::unordered_map", "GHashTable"}, {kInsert, kFind}},
       }) {
    for (Group& group : groups_of(contest)) {
      groups.push_back(std::move(group));
    }
  }
  return groups;
}};

}  // namespace
}  // namespace tirn::bench
