#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "support/log_capture.h"
#include "support/random_seed.h"
#include "tirn/containers.hpp"

namespace {

struct Item {
  uint32_t number;
  kesa_hash_node node;
};
using Table = tirn::HashTable<&Item::node>;

bool is_alone(const kesa_hash_node& node) { return node.link.next == &node.link && node.link.prev == &node.link; }

// Allocators that hand out `budget` pieces.
int budget = 0, balance = 0;
void* give(uint64_t size) { return budget-- > 0 ? (++balance, std::malloc(size)) : nullptr; }
void take(void* memory) { std::free((--balance, memory)); }

}  // namespace

TEST(HashTable, AgreesWithAModel) {
  std::mt19937 random(tirn::test::random_seed());
  std::vector<Item> items(200);
  Table table;
  ASSERT_EQ(table.create(8, 0), 0);  // long chains
  std::set<Item*> model, seen;
  for (uint32_t i = 0; i < items.size(); ++i) {
    // Equal in either part to others; above 32 bits too, where buckets do not tell keys apart.
    items[i].node.key = uint64_t{i / 4 % 2} << 40 | i / 8;
    items[i].node.keyType = i % 4;
  }
  for (int step = 0; step < 20000; ++step) {
    Item& item = items[random() % items.size()];
    const bool is_in = model.count(&item) != 0;
    ASSERT_EQ(table.find(item.node.keyType, item.node.key), is_in ? &item : nullptr);
    if (random() % 2 == 0) {
      Item twin = item;
      ASSERT_EQ(table.insert(is_in ? twin : item), !is_in);
      model.insert(&item);
    } else {
      ASSERT_EQ(table.erase(item.node.keyType, item.node.key), is_in ? &item : nullptr);
      ASSERT_TRUE(!is_in || is_alone(item.node));
      model.erase(&item);
    }
  }
  EXPECT_EQ(table.for_each([&](Item& item) { return seen.insert(&item), 0; }), 0);
  EXPECT_EQ(seen, model);
  int left = 7;
  EXPECT_EQ(table.for_each([&](Item&) { return --left == 0 ? 42 : 0; }), 42);
  EXPECT_EQ(left, 0) << "the walk ends there";
  // Each visited node goes away, memory and all, while the walk is at it.
  EXPECT_EQ(table.for_each([&](Item& item) {
    return table.erase(item.node.keyType, item.node.key), std::memset(&item, 0xA5, sizeof item), 0;
  }),
            0);
  EXPECT_EQ(table.for_each([](Item&) { return 1; }), 0);
}

TEST(HashTable, OrderOfTheWalkStopFlagAndEnd) {
  kesa_hash_table* table = nullptr;
  ASSERT_EQ(kesa_hash_create(16, &table, TIRN_MODULE_COUNT - 1), 0);
  static std::vector<uint64_t> seen;
  seen.clear();
  std::vector<kesa_hash_node> nodes(40);
  for (uint64_t i = 0; i < nodes.size(); ++i) {
    nodes[i].key = i;
    ASSERT_EQ(kesa_hash_insert(table, &nodes[i]), 0);
  }
  const auto note = [](kesa_hash_node* node) { return seen.push_back(node->key), -5; };
  EXPECT_EQ(kesa_hash_for_each(table, note, 0), 0);
  ASSERT_EQ(seen.size(), nodes.size());
  const auto is_before = [](uint64_t a, uint64_t b) {  // by bucket, the newest first
    return std::pair(hash_func(0, a, 4), b) < std::pair(hash_func(0, b, 4), a);
  };
  EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end(), is_before));
  EXPECT_EQ(kesa_hash_for_each(table, note, 1), -5);
  EXPECT_EQ(seen.size(), nodes.size() + 1) << "the walk ends there";
  EXPECT_TRUE(kesa_hash_delete(table, 0, 3, nullptr) == 0 && kesa_hash_delete(table, 0, 3, nullptr) == -1);
  seen.clear();
  const auto release = [](kesa_hash_node* node) {
    seen.push_back(is_alone(*node));
    std::memset(node, 0xA5, sizeof *node);
  };
  EXPECT_EQ(kesa_hash_destory(table, release), 0);
  EXPECT_EQ(seen, std::vector<uint64_t>(nodes.size() - 1, 1));
}

TEST(HashTable, SizesAndBuckets) {
  for (const auto& [requested, count] : std::map<uint32_t, uint32_t>{{1, 1}, {2, 2}, {1000, 512}, {1024, 1024}}) {
    kesa_hash_table* table = nullptr;
    ASSERT_EQ(kesa_hash_create(requested, &table, 0), 0);
    EXPECT_TRUE(table->bucketCount == count && hash_pow(table->bits) == count) << requested;
    kesa_hash_node node{{}, ~0ull, ~0u};
    EXPECT_EQ(kesa_hash_insert(table, &node), 0);
    EXPECT_EQ(node.link.next, &table->buckets[hash_func(~0u, ~0ull, table->bits)]);
    kesa_hash_destory(table, nullptr);
  }
  EXPECT_EQ(hash_func(0, 1, 16), 0x9E37u);
  EXPECT_EQ(hash_func(1, 0xFFFFFFFF00000000, 64), 0xFFFC000100000000u);
  EXPECT_TRUE(hash_pow(30) == 1u << 30 && hash_pow(31) == 0 && hash_pow(255) == 0);
  EXPECT_TRUE(hash_get_pow(0) == 0 && hash_get_pow(1) == 0 && hash_get_pow(UINT32_MAX) == 31);
}

TEST(HashTable, AllocatorAndWrongArguments) {
  tirn::test::LogCapture log;
  kesa_hash_attr attr{give, nullptr};
  kesa_hash_table* table = nullptr;
  EXPECT_EQ(kesa_hash_create_ex(4, &table, 0, &attr), -ENOMEM);
  EXPECT_EQ(log.count(HURN_INFO, "attr malloc(0x*) and free((nil)) must be matched"), 1u);
  attr = {nullptr, take};
  EXPECT_EQ(kesa_hash_create_ex(4, &table, 0, &attr), -ENOMEM);
  attr = {give, take};
  for (const int pieces : {0, 1}) {
    budget = pieces;
    table = reinterpret_cast<kesa_hash_table*>(&attr);
    EXPECT_EQ(kesa_hash_create_ex(4, &table, 0, &attr), -ENOMEM) << pieces;
    EXPECT_TRUE(table == nullptr && balance == 0) << pieces << " " << balance;
  }
  budget = 2;
  EXPECT_TRUE(kesa_hash_create_ex(4, &table, 0, &attr) == 0 && balance == 2);
  kesa_hash_node* node = reinterpret_cast<kesa_hash_node*>(&attr);
  EXPECT_TRUE(kesa_hash_search(table, 0, 1, &node) == -1 && node == nullptr);
  kesa_hash_node free{};
  const auto visit = [](kesa_hash_node*) { return 0; };
  const auto visit_with = [](kesa_hash_node*, void*) { return 0; };
  const std::vector<int> refused = {kesa_hash_create(4, nullptr, 0),
                                    kesa_hash_destory(nullptr, nullptr),
                                    kesa_hash_insert(nullptr, &free),
                                    kesa_hash_insert(table, nullptr),
                                    kesa_hash_delete(nullptr, 0, 1, &node),
                                    kesa_hash_search(nullptr, 0, 1, &node),
                                    kesa_hash_search(table, 0, 1, nullptr),
                                    kesa_hash_for_each(nullptr, visit, 1),
                                    kesa_hash_for_each(table, nullptr, 1),
                                    kesa_hash_for_each_ex(nullptr, visit_with, nullptr, 1),
                                    kesa_hash_for_each_ex(table, nullptr, nullptr, 1),
                                    Table().for_each([](Item&) { return 0; })};
  EXPECT_EQ(refused, std::vector<int>(12, -EINVAL));
  EXPECT_TRUE(kesa_hash_destory(table, nullptr) == 0 && balance == 0);
  for (const auto& [requested, pid] : std::map<uint32_t, uint32_t>{{0, 1}, {4, 1024}, {1u << 31, 0}}) {
    EXPECT_EQ(kesa_hash_create(requested, &table, pid), -EINVAL);
  }
  EXPECT_TRUE(kesa_hash_attr_init(nullptr) == -1 && kesa_hash_attr_init(&attr) == 0);
  EXPECT_TRUE(attr.malloc == nullptr && attr.free == nullptr);
}
