#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "support/log_capture.h"
#include "support/random_seed.h"
#include "tirn/containers.hpp"

namespace {

struct Item {
  int since = 0;  // the step at which it was inserted; 0 while it is not in the table
  kesa_hash_node node = {};
};
using Table = tirn::HashTable<&Item::node>;

bool is_alone(const kesa_hash_node& node) { return node.link.next == &node.link && node.link.prev == &node.link; }

// An allocator that hands out `budget` pieces, and counts in `balance` those that are in use.
int budget = 0, balance = 0;
void* give(uint64_t size) { return budget-- > 0 ? (++balance, std::malloc(size)) : nullptr; }
void take(void* memory) { std::free((--balance, memory)); }

size_t visits = 0;
int visit(kesa_hash_node*) { return ++visits < 7 ? 0 : -5; }
int visit_with(kesa_hash_node* node, void*) { return visit(node); }

}  // namespace

TEST(HashTable, AgreesWithAModel) {
  std::mt19937 random(tirn::test::random_seed());
  std::vector<Item> items(200);
  Table table;
  ASSERT_EQ(table.create(8, TIRN_MODULE_COUNT - 1), 0);  // few buckets, so that the chains are long
  for (uint32_t i = 0; i < items.size(); ++i) {
    // Items share their key with others, and their key type. Some keys differ only above 32 bits, which the choice
    // of the bucket ignores.
    items[i].node.key = uint64_t{i / 4 % 2} << 40 | i / 8;
    items[i].node.keyType = i % 4;
  }
  for (int step = 1; step <= 20000; ++step) {
    Item& item = items[random() % items.size()];
    const bool is_in = item.since != 0;
    ASSERT_EQ(table.find(item.node.keyType, item.node.key), is_in ? &item : nullptr);
    if (random() % 2 == 0) {
      Item twin = item;
      ASSERT_EQ(table.insert(is_in ? twin : item), !is_in);
      item.since = is_in ? item.since : step;
    } else {
      ASSERT_EQ(table.erase(item.node.keyType, item.node.key), is_in ? &item : nullptr);
      ASSERT_TRUE(!is_in || is_alone(item.node));
      item.since = 0;
    }
  }
  std::vector<Item*> model, seen;
  for (Item& item : items) {
    if (item.since != 0) {
      model.push_back(&item);
    }
  }
  std::ranges::sort(model, {}, [](const Item* item) {  // by bucket, and newest first in each
    return std::pair(hash_func(item->node.keyType, item->node.key, 3), -item->since);
  });
  EXPECT_EQ(table.for_each([&](Item& item) { return seen.push_back(&item), 0; }), 0);
  EXPECT_EQ(seen, model);
  for (const int8_t stop : {0, 1}) {
    visits = 0;
    EXPECT_EQ(kesa_hash_for_each(table.native(), visit, stop), -5 * stop);
    EXPECT_EQ(kesa_hash_for_each_ex(table.native(), visit_with, nullptr, stop), -5 * stop);
    EXPECT_EQ(visits, stop != 0 ? 7 + 1 : 2 * model.size());
  }
  // Each visited node is erased and its memory overwritten during the walk.
  EXPECT_EQ(table.for_each([&](Item& item) {
    return table.erase(item.node.keyType, item.node.key), std::memset(&item.node, 0xA5, sizeof item.node), 0;
  }),
            0);
  EXPECT_EQ(table.for_each([](Item&) { return 1; }), 0);
}

TEST(HashTable, MemoryComesFromTheAllocatorAndGoesBack) {
  tirn::test::LogCapture log;
  kesa_hash_table* table = nullptr;
  kesa_hash_attr attr{};
  for (const kesa_hash_attr& half : {kesa_hash_attr{give, nullptr}, {nullptr, take}}) {
    attr = half;
    EXPECT_EQ(kesa_hash_create_ex(4, &table, 0, &attr), -ENOMEM);
  }
  EXPECT_EQ(log.count(HURN_INFO, "attr malloc(*) and free(*) must be matched"), 2u);
  attr = {give, take};
  for (const int pieces : {0, 1, 2}) {
    budget = pieces;
    table = reinterpret_cast<kesa_hash_table*>(&attr);
    EXPECT_EQ(kesa_hash_create_ex(4, &table, 0, &attr), pieces < 2 ? -ENOMEM : 0);
    EXPECT_EQ(table == nullptr, pieces < 2) << pieces;
    EXPECT_EQ(balance, pieces < 2 ? 0 : 2) << pieces;
  }
  std::vector<kesa_hash_node> nodes(9);
  for (uint64_t i = 0; i < nodes.size(); ++i) {
    nodes[i].key = i;
    EXPECT_EQ(kesa_hash_insert(table, &nodes[i]), 0);
  }
  EXPECT_EQ(kesa_hash_delete(table, 0, 3, nullptr), 0);
  EXPECT_EQ(kesa_hash_delete(table, 0, 3, nullptr), -1);
  kesa_hash_node* node = nodes.data();
  EXPECT_EQ(kesa_hash_search(table, 0, 3, &node), -1);
  EXPECT_EQ(node, nullptr);
  visits = 0;
  const auto release = [](kesa_hash_node* released) {
    visits += is_alone(*released);
    std::memset(released, 0xA5, sizeof *released);
  };
  EXPECT_EQ(kesa_hash_destory(table, release), 0);
  EXPECT_TRUE(visits == nodes.size() - 1 && balance == 0) << visits << ' ' << balance;
  EXPECT_EQ(kesa_hash_attr_init(nullptr), -1);
  EXPECT_EQ(kesa_hash_attr_init(&attr), 0);
  EXPECT_TRUE(attr.malloc == nullptr && attr.free == nullptr);
}

TEST(HashTable, SizesAndWrongArguments) {
  kesa_hash_table* table = nullptr;
  kesa_hash_node node{{}, ~0ull, ~0u};
  for (const auto& [requested, count] : {std::pair{1u, 1u}, {2, 2}, {1000, 512}, {1024, 1024}}) {
    ASSERT_EQ(kesa_hash_create(requested, &table, 0), 0);
    EXPECT_EQ(table->bucketCount, count);
    EXPECT_EQ(hash_pow(table->bits), count);
    EXPECT_EQ(kesa_hash_insert(table, &node), 0);
    EXPECT_EQ(node.link.next, &table->buckets[hash_func(~0u, ~0ull, table->bits)]);
    kesa_hash_destory(table, nullptr);
  }
  EXPECT_EQ(hash_func(0, 1, 16), 0x9E37u);
  EXPECT_EQ(hash_func(1, 0xFFFFFFFF00000000, 64), 0xFFFC000100000000u);
  for (const auto& [bits, buckets] : {std::pair{uint8_t{30}, 1u << 30}, {31, 0}, {255, 0}}) {
    EXPECT_EQ(hash_pow(bits), buckets);
  }
  for (const auto& [buckets, bits] : {std::pair{0u, 0u}, {1, 0}, {UINT32_MAX, 31}}) {
    EXPECT_EQ(hash_get_pow(buckets), bits);
  }
  Table some;
  EXPECT_EQ(some.for_each([](Item&) { return 0; }), -EINVAL);
  ASSERT_EQ(some.create(4, 0), 0);
  kesa_hash_node* found = nullptr;
  kesa_hash_table* const none = nullptr;
  kesa_hash_table* const made = some.native();
  for (const int result :
       {kesa_hash_create(0, &table, 1), kesa_hash_create(4, &table, TIRN_MODULE_COUNT),
        kesa_hash_create(4, nullptr, 0), kesa_hash_create(1u << 31, &table, 0), kesa_hash_destory(none, nullptr),
        kesa_hash_insert(none, &node), kesa_hash_insert(made, nullptr), kesa_hash_delete(none, 0, 1, &found),
        kesa_hash_search(none, 0, 1, &found), kesa_hash_search(made, 0, 1, nullptr),
        kesa_hash_for_each(none, visit, 1), kesa_hash_for_each(made, nullptr, 1),
        kesa_hash_for_each_ex(made, nullptr, nullptr, 1)}) {
    EXPECT_EQ(result, -EINVAL);
  }
}
