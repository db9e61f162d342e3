#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <iterator>
#include <random>
#include <set>
#include <sstream>
#include <vector>

#include "support/log_capture.h"
#include "support/random_seed.h"
#include "tirn/containers.hpp"

namespace {

struct Item {
  kesa_avl_node avl = {};
  uint64_t key = 0;  // not in front: a key taken for an object, or the other way round, finds a wrong way
  kesa_rb_node rb = {};
  uint64_t sum = 0;    // of the keys of its subtree in the red-black tree
  uint64_t spare = 0;  // what the bit beside the colour must hold
};

struct ByKey {
  auto operator()(uint64_t key, const Item& item) const { return key <=> item.key; }
  auto operator()(const Item& a, const Item& b) const { return a.key <=> b.key; }
};

using Avl = tirn::AvlTree<&Item::avl, ByKey, uint64_t>;
using Rb = tirn::RbTree<&Item::rb, ByKey>;
using Model = std::set<Item*>;  // in the order of their keys: they lie in one array

std::mt19937_64& random_numbers() {
  static std::mt19937_64 numbers(tirn::test::random_seed());
  return numbers;
}

// The ways in: all end at the same place, as the order of the keys tells.
void insert(Avl& tree, const Model& model, Item& item) {
  kesa_avl_tree* const native = tree.native();
  const auto above = model.lower_bound(&item);
  Item* const near[] = {above == model.begin() ? nullptr : *std::prev(above),
                        above == model.end() ? nullptr : *above};
  const uint32_t side = random_numbers()() % 2;
  const auto way = random_numbers()() % 4;
  if (way == 0) {
    ASSERT_TRUE(tree.insert(item));
  } else if (way == 1) {
    kesa_add_avl_node(native, &item);
  } else if (way == 2 && near[side] != nullptr) {
    ASSERT_EQ(kesa_insert_avl_node_specified(native, &item, near[side], 1 - side), 0);
  } else {
    uint64_t cookie = 77;
    ASSERT_EQ(kesa_find_avl_node(native, &item.key, &cookie), nullptr);
    ASSERT_EQ(kesa_find_avl_nearest_node(native, cookie, KESA_AVL_LEFT), near[0]);
    ASSERT_EQ(kesa_find_avl_nearest_node(native, cookie, KESA_AVL_RIGHT), near[1]);
    ASSERT_EQ(kesa_insert_avl_node(native, &item, cookie), 0);
  }
}

void erase(Avl& tree, Item& item) { tree.erase(item); }

uint64_t sum_of(const kesa_rb_node* node) { return node == nullptr ? 0 : tirn::container_of<&Item::rb>(node)->sum; }
uint64_t sum_below(const kesa_rb_node* node) {
  return tirn::container_of<&Item::rb>(node)->key + sum_of(node->left) + sum_of(node->right);
}
void add_up(kesa_rb_node* node, void*) { tirn::container_of<&Item::rb>(node)->sum = sum_below(node); }

void insert(Rb& tree, const Model&, Item& item) {
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

// Checks a subtree, appends its objects in order, and gives its height.
int check(const kesa_avl_node* node, const kesa_avl_node* parent, std::vector<Item*>& found) {
  if (node == nullptr) {
    return 0;
  }
  EXPECT_EQ(node->parent, parent);
  EXPECT_TRUE(parent == nullptr || parent->child[node->childIndex] == node);
  const int left = check(node->child[0], node, found);
  found.push_back(tirn::container_of<&Item::avl>(node));
  const int right = check(node->child[1], node, found);
  EXPECT_EQ(node->balance, right - left);
  EXPECT_LE(std::abs(right - left), 1);
  return std::max(left, right) + 1;
}

// The same; the height counts black nodes.
int check(const kesa_rb_node* node, const kesa_rb_node* parent, std::vector<Item*>& found) {
  if (node == nullptr) {
    return 0;
  }
  Item* const item = tirn::container_of<&Item::rb>(node);
  const bool is_black = (node->parentColor & KESA_RB_BLACK) != 0;
  EXPECT_EQ(node->parentColor & ~uint64_t{3}, reinterpret_cast<uintptr_t>(parent));
  EXPECT_EQ(node->parentColor & 2, item->spare);
  EXPECT_TRUE(is_black || (parent != nullptr && (parent->parentColor & KESA_RB_BLACK) != 0));
  const int left = check(node->left, node, found);
  found.push_back(item);
  EXPECT_EQ(left, check(node->right, node, found));
  EXPECT_EQ(item->sum, sum_below(node));
  return left + (is_black ? 1 : 0);
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

// A tree beside a model of it.
template <class Tree>
struct Bed {
  // Enters the keys that the digits tell, in that order.
  explicit Bed(std::string_view digits = "") {
    for (size_t i = 0; i < items.size(); ++i) {
      items[i].key = i;
    }
    for (const char digit : digits) {
      enter(items[static_cast<size_t>(digit - '0')]);
    }
  }
  void enter(Item& item) { insert(tree, model, item), model.insert(&item); }
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

  std::vector<Item> items{1000};
  Tree tree;
  Model model;
};

template <class Tree>
class Trees : public testing::Test {};
using Kinds = testing::Types<Avl, Rb>;
TYPED_TEST_SUITE(Trees, Kinds);

// Random steps between full and empty, then a walk that empties the tree under its own feet.
TYPED_TEST(Trees, StayInOrderAndBalanceAtEachStep) {
  Bed<TypeParam> bed;
  const auto is_likely = [](size_t part) { return random_numbers()() % 150 < part; };
  for (int round = 0; round < 100 && !this->HasFailure(); ++round) {
    const size_t fill = random_numbers()() % 150;
    for (int step = 0; step < 150 && !this->HasFailure(); ++step) {
      Item& item = bed.items[random_numbers()() % 150];
      Item twin{item};
      const bool is_in = bed.model.count(&item) != 0;
      ASSERT_EQ(bed.tree.find(item.key), is_in ? &item : nullptr);
      const bool is_wanted = is_likely(fill);
      if (is_in && is_wanted) {
        ASSERT_FALSE(bed.tree.insert(twin));
      } else if (is_wanted) {
        bed.enter(item);
      } else if (is_in) {
        bed.leave(item);
      }
      bed.check_all();
    }
    const auto visit = [&](Item& item) {
      if (round % 4 == 0 || is_likely(75)) {
        bed.leave(item);
        bed.check_all();
      }
    };
    for (Item *item = bed.tree.last(), *before = nullptr; round % 8 < 4 && item != nullptr; item = before) {
      before = bed.tree.prev(*item);
      visit(*item);
    }
    for (Item& item : bed.tree) {
      visit(item);
    }
  }
}

TYPED_TEST(Trees, StayBalancedWhereKeysComeAndGoInOrder) {
  Bed<TypeParam> bed;
  for (const bool is_up : {true, false}) {
    for (const bool is_in : {true, false}) {
      for (size_t i = 0; i < bed.items.size() && !this->HasFailure(); ++i) {
        Item& item = bed.items[is_up ? i : bed.items.size() - 1 - i];
        is_in ? bed.enter(item) : bed.leave(item);
        bed.check_all();
      }
    }
  }
}

// Of an object behind all others: the truth for some turns, then an answer that is none.
int honest_turns = INT_MAX;
int compare(const void* object, const void* other, uint64_t zero) {
  EXPECT_GT(static_cast<const Item*>(object)->key, static_cast<const Item*>(other)->key);
  EXPECT_EQ(zero, 0u);
  const int answers[] = {2, -2, INT_MIN, INT_MAX};
  return --honest_turns >= 0 ? 1 : answers[random_numbers()() % 4];
}

}  // namespace

TEST(AvlTree, RemovalTakesTheNeighbourOnTheHigherSideAndLogs) {
  tirn::test::LogCapture log;
  for (const auto& [digits, balanced, erased, root] : {std::tuple{"213", 1u, 2, 1},
                                                       {"2134", 1u, 2, 3},
                                                       {"3241", 1u, 3, 2},
                                                       {"4261357", 4u, 4, 3},
                                                       {"42613578", 4u, 4, 5}}) {
    log.clear();
    Bed<Avl> bed(digits);
    EXPECT_EQ(log.count("Set AVL balance done."), balanced) << digits;
    bed.leave(bed.items[erased]);
    EXPECT_EQ(bed.tree.native()->root, &bed.items[root].avl) << digits;
    bed.check_all();
    EXPECT_TRUE(kesa_destroy_avl(bed.tree.native()) == 0 && bed.tree.empty() && bed.tree.size() == 0);
  }
  Bed<Avl> bed("21");
  log.clear();
  bed.leave(bed.items[1]), bed.leave(bed.items[2]);
  EXPECT_EQ(log.texts(), std::vector<std::string>{"Remove node not need set balance."});
}

TEST(AvlTree, ACompareFunctionThatAnswersNonsenseLosesNothing) {
  tirn::test::LogCapture log(HURN_ERROR);
  Bed<Avl> bed;
  kesa_avl_tree* const tree = bed.tree.native();
  ASSERT_EQ(kesa_create_avl(tree, compare, sizeof(Item), offsetof(Item, avl)), 0);
  honest_turns = INT_MAX;
  for (size_t i = 0; i < 31; ++i) {
    kesa_add_avl_node(tree, &bed.items[i]);
  }
  for (int round = 0; round < 100; ++round) {
    uint64_t cookie = 77;
    honest_turns = round % 5;
    EXPECT_TRUE(kesa_find_avl_node(tree, &bed.items[31], &cookie) == nullptr && cookie == 0);
    log.clear();
    honest_turns = round % 5;
    kesa_add_avl_node(tree, &bed.items[31]);
    EXPECT_TRUE(log.has(HURN_ERROR, "kesa_add_avl_node", "InsertAvlNode fail."));
    EXPECT_EQ(checked(bed.tree).size(), 31u) << round;
  }
}

TEST(AvlTree, WrongArgumentsChangeNothing) {
  tirn::test::LogCapture log(HURN_ERROR);
  Bed<Avl> bed("213");
  kesa_avl_tree* const tree = bed.tree.native();
  kesa_avl_tree* const none = nullptr;
  Item* const one = &bed.items[1];
  const int refused[] = {kesa_create_avl(none, compare, 0, 0),
                         kesa_create_avl(tree, nullptr, 0, 0),
                         kesa_create_avl_new(none, compare, compare, 0, 0),
                         kesa_create_avl_new(tree, nullptr, compare, 0, 0),
                         kesa_create_avl_new(tree, compare, nullptr, 0, 0),
                         kesa_destroy_avl(none),
                         kesa_insert_avl_node(none, one, 0),
                         kesa_insert_avl_node(tree, nullptr, 0),
                         kesa_insert_avl_node_specified(none, one, one, 0),
                         kesa_insert_avl_node_specified(tree, one, nullptr, 0),
                         kesa_insert_avl_node_specified(tree, one, one, 2),
                         kesa_insert_avl_node_specified(tree, nullptr, one, 1)};
  EXPECT_EQ(std::count(std::begin(refused), std::end(refused), -1), 12) << testing::PrintToString(refused);
  const void* const found[] = {kesa_find_avl_node(none, one, nullptr), kesa_find_avl_nearest_node(none, 0, 0),
                               kesa_get_avl_first_node(none),          kesa_get_avl_last_node(none),
                               kesa_walk_avl_node(none, one, 0),       kesa_walk_avl_node(tree, nullptr, 0),
                               kesa_walk_avl_node(tree, one, 2)};
  EXPECT_EQ(std::count(std::begin(found), std::end(found), nullptr), 7);
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
  // The keys, a node, the calls behind its insert, and the node that its erase disturbs, 0 for none.
  for (const char* const row : {"1 1 1 0", "21 2 12 1", "123 2 132 3", "123456 1 142 2", "123456 2 142 4",
                                "123456 4 35412 6", "123456 5 6653412 6", "123456 6 6653412 5"}) {
    SCOPED_TRACE(row);
    std::string digits, calls, called;
    size_t node = 0, disturbed = 0;
    std::istringstream(row) >> digits >> node >> calls >> disturbed;
    Bed<Rb> bed(digits);
    const auto note = [](kesa_rb_node* at, void* data) {
      *static_cast<std::string*>(data) += std::to_string(tirn::container_of<&Item::rb>(at)->key);
    };
    kesa_rb_augment_insert(&bed.items[node].rb, note, &called);
    EXPECT_EQ(called, calls);
    kesa_rb_node* const begin = kesa_rb_augment_erase_begin(&bed.items[node].rb);
    EXPECT_EQ(begin, disturbed == 0 ? nullptr : &bed.items[disturbed].rb);
    kesa_rb_augment_erase_end(begin, note, &(called = "none"));
    EXPECT_EQ(called.substr(4, 1), disturbed == 0 ? "" : std::to_string(disturbed));
  }
}

TEST(RbTree, NodesInNoTreeAndReplacement) {
  EXPECT_TRUE(Rb().empty() && Rb().first() == nullptr && Rb().last() == nullptr);
  Bed<Rb> bed("1234567");
  Item free{};
  kesa_rb_clear_node(&free.rb);
  EXPECT_TRUE(kesa_rb_next(&free.rb) == nullptr && kesa_rb_prev(&free.rb) == nullptr);
  for (Item& old : bed.tree) {  // at the root, in the middle, at a leaf
    Item twin = old;
    twin.rb = {~0ull, nullptr, nullptr};
    bed.tree.replace(old, twin);
    EXPECT_EQ(checked(bed.tree)[old.key - 1], &twin);
    bed.tree.replace(twin, old);
  }
}
