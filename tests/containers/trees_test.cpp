#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <random>
#include <set>
#include <vector>

#include "support/log_capture.h"
#include "support/random_seed.h"
#include "tirn/containers.hpp"

namespace {

struct Item {
  kesa_avl_node avl = {};
  uint64_t key = 0;  // not the first member, so that a search that confuses keys and objects fails
  kesa_rb_node rb = {};
  uint64_t sum = 0;    // of the keys of its subtree in the red-black tree
  uint64_t spare = 0;  // the value that the bit beside the colour must keep
};

struct ByKey {
  auto operator()(uint64_t key, const Item& item) const { return key <=> item.key; }
  auto operator()(const Item& a, const Item& b) const { return a.key <=> b.key; }
};

using Avl = tirn::AvlTree<&Item::avl, ByKey, uint64_t>;
using Rb = tirn::RbTree<&Item::rb, ByKey>;

std::mt19937_64& random_numbers() {
  static std::mt19937_64 numbers(tirn::test::random_seed());
  return numbers;
}

// Inserts in one of four ways, chosen at random. Each of them puts the item between its nearest neighbours.
void insert(Avl& tree, Item& item) {
  kesa_avl_tree* const native = tree.native();
  uint64_t cookie = 77;
  ASSERT_EQ(kesa_find_avl_node(native, &item.key, &cookie), nullptr);
  void* const near[] = {kesa_find_avl_nearest_node(native, cookie, KESA_AVL_LEFT),
                        kesa_find_avl_nearest_node(native, cookie, KESA_AVL_RIGHT)};
  const uint32_t side = random_numbers()() % 2;
  const auto way = random_numbers()() % 4;
  if (way == 0) {
    ASSERT_TRUE(tree.insert(item));
  } else if (way == 1) {
    kesa_add_avl_node(native, &item);
  } else if (way == 2 && near[side] != nullptr) {
    ASSERT_EQ(kesa_insert_avl_node_specified(native, &item, near[side], 1 - side), 0);
  } else {
    ASSERT_EQ(kesa_insert_avl_node(native, &item, cookie), 0);
  }
  ASSERT_EQ(tree.prev(item), near[0]);
  ASSERT_EQ(tree.next(item), near[1]);
}

void erase(Avl& tree, Item& item) { tree.erase(item); }

uint64_t sum_of(const kesa_rb_node* node) { return node == nullptr ? 0 : tirn::container_of<&Item::rb>(node)->sum; }
uint64_t sum_below(const kesa_rb_node* node) {
  return tirn::container_of<&Item::rb>(node)->key + sum_of(node->left) + sum_of(node->right);
}
void add_up(kesa_rb_node* node, void*) { tirn::container_of<&Item::rb>(node)->sum = sum_below(node); }

void insert(Rb& tree, Item& item) {
  ASSERT_TRUE(tree.insert(item));
  item.spare = random_numbers()() % 2 * 2;
  item.rb.parentColor |= item.spare;
  kesa_rb_augment_insert(&item.rb, add_up, nullptr);
}

void erase(Rb& tree, Item& item) {
  kesa_rb_node* const disturbed = kesa_rb_augment_erase_begin(&item.rb);
  tree.erase(item);
  kesa_rb_augment_erase_end(disturbed, add_up, nullptr);
}

// Checks a subtree, appends its objects in order, and returns its height.
int check(const kesa_avl_node* node, const kesa_avl_node* parent, std::vector<Item*>& found) {
  if (node == nullptr) {
    return 0;
  }
  EXPECT_TRUE(node->parent == parent && (parent == nullptr || parent->child[node->childIndex] == node));
  const int left = check(node->child[0], node, found);
  found.push_back(tirn::container_of<&Item::avl>(node));
  const int right = check(node->child[1], node, found);
  EXPECT_TRUE(node->balance == right - left && std::abs(right - left) <= 1) << left << ' ' << right;
  return std::max(left, right) + 1;
}

// Does the same for a red-black tree, where the height counts black nodes. Also checks each node's spare bit and sum.
int check(const kesa_rb_node* node, const kesa_rb_node* parent, std::vector<Item*>& found) {
  if (node == nullptr) {
    return 0;
  }
  Item* const item = tirn::container_of<&Item::rb>(node);
  const uint64_t black = node->parentColor & KESA_RB_BLACK;
  EXPECT_EQ(node->parentColor, reinterpret_cast<uintptr_t>(parent) + item->spare + black);
  EXPECT_TRUE(black != 0 || (parent != nullptr && (parent->parentColor & KESA_RB_BLACK) != 0));
  const int left = check(node->left, node, found);
  found.push_back(item);
  EXPECT_EQ(left, check(node->right, node, found));
  EXPECT_EQ(item->sum, sum_below(node));
  return left + static_cast<int>(black);
}

template <class Tree>
std::vector<Item*> checked(Tree& tree) {
  std::vector<Item*> found;
  if constexpr (std::is_same_v<Tree, Avl>) {
    check(tree.native()->root, nullptr, found);
    EXPECT_EQ(kesa_get_avl_node_num(tree.native()), found.size());
  } else {
    check(tree.native()->node, nullptr, found);
  }
  return found;
}

// A tree, and a model of what it holds.
template <class Tree>
struct Bed {
  // Inserts the items whose keys the digits give, in that order.
  explicit Bed(std::string_view digits = "") {
    for (size_t i = 0; i < items.size(); ++i) {
      items[i].key = i;
    }
    for (const char digit : digits) {
      enter(items[static_cast<size_t>(digit - '0')]);
    }
  }
  void enter(Item& item) { insert(tree, item), model.insert(&item); }
  void leave(Item& item) { erase(tree, item), model.erase(&item); }
  void check_all() {
    const std::vector<Item*> found = checked(tree);
    ASSERT_EQ(found, std::vector<Item*>(model.begin(), model.end()));
    size_t at = 0;
    for (Item& item : tree) {
      ASSERT_TRUE(at < found.size() && found[at++] == &item);
    }
    for (Item* item = tree.last(); item != nullptr; item = tree.prev(*item)) {
      ASSERT_TRUE(at > 0 && found[--at] == item);
    }
    ASSERT_EQ(at, 0u);
  }

  std::vector<Item> items{150};
  Tree tree;
  std::set<Item*> model;  // ordered by key: the items lie in one array in that order
};

template <class Tree>
class Trees : public testing::Test {};
using Kinds = testing::Types<Avl, Rb>;
TYPED_TEST_SUITE(Trees, Kinds);

// Each round takes 150 steps, in ascending, descending or random order of the keys. A step inserts an item or erases
// one; the share of insertions is random. Then a walk erases all or about half of the items as it reaches them.
TYPED_TEST(Trees, StayInOrderAndBalanceAtEachStep) {
  Bed<TypeParam> bed;
  for (size_t round = 0; round < 100 && !this->HasFailure(); ++round) {
    const size_t fill = random_numbers()() % 150;
    for (size_t step = 0; step < 150 && !this->HasFailure(); ++step) {
      const size_t places[] = {step, 149 - step, random_numbers()() % 150, random_numbers()() % 150};
      Item& item = bed.items[places[round % 4]];
      Item twin{item};
      const bool is_in = bed.model.count(&item) != 0;
      ASSERT_EQ(bed.tree.find(item.key), is_in ? &item : nullptr);
      if (random_numbers()() % 150 >= fill) {
        is_in ? bed.leave(item) : void();
      } else if (is_in) {
        ASSERT_FALSE(bed.tree.insert(twin));
      } else {
        bed.enter(item);
      }
      bed.check_all();
    }
    for (Item& item : bed.tree) {
      if (round % 3 == 0 || random_numbers()() % 2 == 0) {
        bed.leave(item);
        bed.check_all();
      }
    }
  }
}

// Compares an object that belongs after all others: correctly for some calls, then with an answer that is not valid.
int honest_turns = INT_MAX, last_answer = 0;
int compare(const void* object, const void* other, uint64_t zero) {
  EXPECT_TRUE(static_cast<const Item*>(object)->key > static_cast<const Item*>(other)->key && zero == 0);
  return honest_turns-- > 0 ? 1 : last_answer;
}

}  // namespace

TEST(AvlTree, RemovalTakesTheNeighbourOnTheHigherSideAndLogs) {
  tirn::test::LogCapture log;
  for (const auto& [digits, erased, root] : {std::tuple{"213", 2, 1}, {"2134", 2, 3}, {"3241", 3, 2}}) {
    log.clear();
    Bed<Avl> bed(digits);
    EXPECT_EQ(log.count("Set AVL balance done."), 1u) << digits;
    bed.leave(bed.items[erased]);
    EXPECT_EQ(bed.tree.native()->root, &bed.items[root].avl) << digits;
    EXPECT_EQ(kesa_destroy_avl(bed.tree.native()), 0);
    EXPECT_TRUE(bed.tree.empty());
    EXPECT_EQ(bed.tree.size(), 0u);
    EXPECT_EQ(log.count("Remove node not need set balance."), 0u);
    bed.enter(bed.items[9]), bed.leave(bed.items[9]);
    EXPECT_EQ(log.count("Remove node not need set balance."), 1u);
  }
}

TEST(AvlTree, ACompareFunctionThatAnswersNonsenseLosesNothing) {
  tirn::test::LogCapture log(HURN_ERROR);
  Bed<Avl> bed;
  kesa_avl_tree* const tree = bed.tree.native();
  ASSERT_EQ(kesa_create_avl(tree, compare, sizeof(Item), offsetof(Item, avl)), 0);
  for (size_t i = 1; i < 8; ++i) {
    kesa_add_avl_node(tree, &bed.items[i]);
  }
  for (const int turns : {0, 1, 2}) {
    for (const int answer : {2, -2, INT_MIN}) {
      uint64_t cookie = 77;
      honest_turns = turns, last_answer = answer;
      EXPECT_EQ(kesa_find_avl_node(tree, &bed.items[9], &cookie), nullptr);
      EXPECT_EQ(cookie, 0u);
      honest_turns = turns;
      kesa_add_avl_node(tree, &bed.items[9]);
      const std::vector<Item*> found = checked(bed.tree);
      EXPECT_TRUE(found.size() == 7 && found.back() == &bed.items[7]) << turns;
    }
  }
  EXPECT_EQ(log.count("InsertAvlNode fail."), 9u);
}

TEST(AvlTree, WrongArgumentsChangeNothing) {
  tirn::test::LogCapture log(HURN_ERROR);
  Bed<Avl> bed("213");
  kesa_avl_tree* const tree = bed.tree.native();
  kesa_avl_tree* const none = nullptr;
  Item* const one = &bed.items[1];
  for (const int result :
       {kesa_create_avl(none, compare, 0, 0), kesa_create_avl(tree, nullptr, 0, 0), kesa_destroy_avl(none),
        kesa_create_avl_new(none, compare, compare, 0, 0), kesa_create_avl_new(tree, nullptr, compare, 0, 0),
        kesa_create_avl_new(tree, compare, nullptr, 0, 0), kesa_insert_avl_node(none, one, 0),
        kesa_insert_avl_node(tree, nullptr, 0), kesa_insert_avl_node_specified(none, one, one, 0),
        kesa_insert_avl_node_specified(tree, one, nullptr, 0), kesa_insert_avl_node_specified(tree, one, one, 2),
        kesa_insert_avl_node_specified(tree, nullptr, one, 1)}) {
    EXPECT_EQ(result, -1);
  }
  for (const void* const found :
       {kesa_find_avl_node(none, one, nullptr), kesa_find_avl_nearest_node(none, 0, 0), kesa_get_avl_first_node(none),
        kesa_get_avl_last_node(none), kesa_walk_avl_node(none, one, 0), kesa_walk_avl_node(tree, nullptr, 0),
        kesa_walk_avl_node(tree, one, 2)}) {
    EXPECT_EQ(found, nullptr);
  }
  EXPECT_EQ(kesa_get_avl_node_num(none), UINT64_MAX);
  for (auto* const call : {kesa_add_avl_node, kesa_remove_avl_node}) {
    call(none, one), call(tree, nullptr);
  }
  bed.check_all();
  EXPECT_EQ(log.count(HURN_ERROR, "NULL POINTER"), 20u) << log;
  EXPECT_EQ(log.count(HURN_ERROR, "Invalid Param"), 1u);
  EXPECT_EQ(log.count(HURN_ERROR, "InsertAvlNode fail: avl_tree=0x*, new_node=(nil), here=0x*, direction=1."), 1u);
}

TEST(RbTree, TheWayOfTheAugmentCallbacks) {
  // The keys, a node, the calls made after its insertion, and the node that its removal disturbs.
  using Row = std::tuple<const char*, size_t, const char*, size_t>;
  for (const auto& [digits, node, calls, disturbed] : {Row{"21", 2, "12", 1},
                                                       {"123", 2, "132", 3},
                                                       {"123456", 1, "142", 2},
                                                       {"123456", 2, "142", 4},
                                                       {"123456", 4, "35412", 6},
                                                       {"123456", 5, "6653412", 6}}) {
    SCOPED_TRACE(digits);
    std::string called;
    Bed<Rb> bed(digits);
    const auto note = [](kesa_rb_node* at, void* data) {
      *static_cast<std::string*>(data) += std::to_string(tirn::container_of<&Item::rb>(at)->key);
    };
    kesa_rb_augment_insert(&bed.items[node].rb, note, &called);
    EXPECT_EQ(called, calls);
    EXPECT_EQ(kesa_rb_augment_erase_begin(&bed.items[node].rb), &bed.items[disturbed].rb);
  }
}

TEST(RbTree, NodesInNoTreeAndReplacement) {
  Bed<Rb> bed("1234567");
  Item free{};
  kesa_rb_clear_node(&free.rb);
  EXPECT_EQ(kesa_rb_next(&free.rb), nullptr);
  EXPECT_EQ(kesa_rb_prev(&free.rb), nullptr);
  for (Item& old : bed.tree) {  // the root, inner nodes and leaves
    Item twin = old;
    twin.rb = {~0ull, nullptr, nullptr};
    bed.tree.replace(old, twin);
    EXPECT_EQ(checked(bed.tree)[old.key - 1], &twin);
    bed.tree.replace(twin, old);
  }
}
