// Implements the hash table of tirn/hash.h.
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdlib>

#include "libtirn/base/list.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "tirn/hash.h"

using namespace tirn;

namespace {

using Node = kesa_hash_node;
using Table = kesa_hash_table;

// The multiplier of Knuth's multiplicative hashing: the prime 2^63 + 2^61 - 2^57 + 2^54 - 2^51 - 2^18 + 1.
constexpr uint64_t kGoldenRatioPrime = 0x9E37FFFFFFFC0001;
static_assert(kGoldenRatioPrime ==
              (1ull << 63) + (1ull << 61) - (1ull << 57) + (1ull << 54) - (1ull << 51) - (1ull << 18) + 1);

Node* node_of(list::Link* link) {
  static_assert(offsetof(Node, link) == 0);
  return reinterpret_cast<Node*>(link);
}

uint64_t product_of(uint32_t key_type, uint64_t key) {
  return (uint64_t{key_type} << 32 | (key & UINT32_MAX)) * kGoldenRatioPrime;
}

// Returns the bucket with the index that hash_func computes, for 0 to 30 bits. The product is shifted by 4 bits less,
// which leaves the index multiplied by the size of a bucket.
list::Link* bucket_of(const Table* table, uint32_t key_type, uint64_t key) {
  static_assert(sizeof(list::Link) == 16);
  const uint64_t offset = product_of(key_type, key) >> (60 - table->bits) & ~uint64_t{sizeof(list::Link) - 1};
  return reinterpret_cast<list::Link*>(reinterpret_cast<uintptr_t>(table->buckets) + offset);
}

// Returns the node with this key, or NULL. The key is compared first: often all nodes have the same type, and
// comparing the type first would cost one more branch for each node.
Node* find_in(list::Link* bucket, uint32_t key_type, uint64_t key) {
  for (list::Link* link = bucket->next; link != bucket; link = link->next) {
    Node* const node = node_of(link);
    if (node->key == key && node->keyType == key_type) {
      return node;
    }
  }
  return nullptr;
}

// Calls visit(node) for each node, up to the first result that is not 0, and returns that. The next node is read
// before the call, because `visit` may take its node out.
template <class Visit>
int walk(const Table* table, Visit visit) {
  list::Link* const end = table->buckets + table->bucketCount;
  for (list::Link* bucket = table->buckets; bucket != end; ++bucket) {
    for (list::Link *link = bucket->next, *next = link->next; link != bucket; link = next, next = link->next) {
      if (const int result = visit(node_of(link)); result != 0) {
        return result;
      }
    }
  }
  return kOk;
}

}  // namespace

int kesa_hash_attr_init(kesa_hash_attr* attr) {
  if (attr == nullptr) {
    return kFail;
  }
  *attr = {};
  return kOk;
}

void* kesa_hash_malloc(const kesa_hash_attr* attr, uint64_t size) {
  if (attr == nullptr || (attr->malloc == nullptr && attr->free == nullptr)) {
    return malloc(size);
  }
  if (attr->malloc == nullptr || attr->free == nullptr) {
    TIRN_INFO("attr malloc(%p) and free(%p) must be matched", reinterpret_cast<void*>(attr->malloc),
              reinterpret_cast<void*>(attr->free));
    return nullptr;
  }
  return attr->malloc(size);
}

void kesa_hash_free(const kesa_hash_attr* attr, void* memory) {
  if (attr != nullptr && attr->free != nullptr) {
    attr->free(memory);
  } else {
    free(memory);
  }
}

uint64_t hash_func(uint32_t key_type, uint64_t key, uint32_t bits) {
  return bits == 0 ? 0 : product_of(key_type, key) >> ((64 - bits) & 63);
}

uint32_t hash_pow(uint8_t bits) { return bits >= 31 ? 0 : 1u << bits; }

uint32_t hash_get_pow(uint32_t count) { return static_cast<uint32_t>(std::bit_width(count | 1)) - 1; }

int kesa_hash_create_ex(uint32_t requested, kesa_hash_table** table, uint32_t pid, kesa_hash_attr* attr) {
  const auto bits = static_cast<uint8_t>(hash_get_pow(requested));
  const uint32_t count = hash_pow(bits);
  if (pid >= TIRN_MODULE_COUNT || table == nullptr || requested == 0 || count == 0) {
    return -EINVAL;
  }
  *table = static_cast<Table*>(kesa_hash_malloc(attr, sizeof(Table)));
  if (*table == nullptr) {
    return -ENOMEM;
  }
  auto* const buckets = static_cast<list::Link*>(kesa_hash_malloc(attr, uint64_t{count} * sizeof(list::Link)));
  if (buckets == nullptr) {
    kesa_hash_free(attr, *table);
    *table = nullptr;
    return -ENOMEM;
  }
  for (uint32_t i = 0; i < count; ++i) {
    list::init(&buckets[i]);
  }
  **table = {buckets, count, bits, attr};
  return kOk;
}

int kesa_hash_create(uint32_t requested, kesa_hash_table** table, uint32_t pid) {
  return kesa_hash_create_ex(requested, table, pid, nullptr);
}

int kesa_hash_destory(kesa_hash_table* table, kesa_hash_release_fn release) {
  if (table == nullptr) {
    return -EINVAL;
  }
  for (uint32_t i = 0; i < table->bucketCount; ++i) {
    while (!list::is_empty(&table->buckets[i])) {
      Node* const node = node_of(table->buckets[i].next);
      list::detach(&node->link);
      if (release != nullptr) {
        release(node);
      }
    }
  }
  kesa_hash_free(table->attr, table->buckets);
  kesa_hash_free(table->attr, table);
  return kOk;
}

int kesa_hash_insert(kesa_hash_table* table, kesa_hash_node* node) {
  if (table == nullptr || node == nullptr) {
    return -EINVAL;
  }
  list::Link* const bucket = bucket_of(table, node->keyType, node->key);
  if (find_in(bucket, node->keyType, node->key) != nullptr) {
    return -EEXIST;
  }
  list::push_front(bucket, &node->link);
  return kOk;
}

int kesa_hash_delete(kesa_hash_table* table, uint32_t key_type, uint64_t key, kesa_hash_node** node) {
  if (table == nullptr) {
    return -EINVAL;
  }
  Node* const found = find_in(bucket_of(table, key_type, key), key_type, key);
  if (found == nullptr) {
    return kFail;
  }
  if (node != nullptr) {
    *node = found;
  }
  list::detach(&found->link);
  return kOk;
}

int kesa_hash_search(const kesa_hash_table* table, uint32_t key_type, uint64_t key, kesa_hash_node** node) {
  if (table == nullptr || node == nullptr) {
    return -EINVAL;
  }
  *node = find_in(bucket_of(table, key_type, key), key_type, key);
  return *node == nullptr ? kFail : kOk;
}

int kesa_hash_for_each(kesa_hash_table* table, kesa_hash_visit_fn visit, int8_t stop) {
  if (table == nullptr || visit == nullptr) {
    return -EINVAL;
  }
  return walk(table, [visit, stop](Node* node) {
    const int result = visit(node);
    return stop == 0 ? 0 : result;
  });
}

int kesa_hash_for_each_ex(kesa_hash_table* table, kesa_hash_visit_with_fn visit, void* arg, int8_t stop) {
  if (table == nullptr || visit == nullptr) {
    return -EINVAL;
  }
  return walk(table, [visit, arg, stop](Node* node) {
    const int result = visit(node, arg);
    return stop == 0 ? 0 : result;
  });
}
