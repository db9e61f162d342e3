#include <gtest/gtest.h>

#include <array>
#include <iterator>
#include <map>
#include <random>
#include <vector>

#include "support/log_capture.h"
#include "tirn/containers.hpp"

namespace {

using tirn::test::LogCapture;

struct Item {
  uint64_t key;
  kesa_avl_node avl = {};
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
using Model = std::map<uint64_t, Item*>;

std::mt19937_64& random_numbers() {
  static const unsigned seed = [] {
    const unsigned chosen = std::random_device()();
    testing::Test::RecordProperty("seed", std::to_string(chosen));
    std::printf("seed %u\n", chosen);
    return chosen;
  }();
  static std::mt19937_64 numbers(seed);
  return numbers;
}

// What the model has before and behind a key that it lacks.
std::array<Item*, 2> around(const Model& model, uint64_t key) {
  const auto above = model.lower_bound(key);
  return {above == model.begin() ? nullptr : std::prev(above)->second,
          above == model.end() ? nullptr : above->second};
}

// The ways in: all end at the same place, as the order of the keys tells.
void insert(Avl& tree, const Model& model, Item& item) {
  kesa_avl_tree* const native = tree.native();
  const auto [before, behind] = around(model, item.key);
  switch (random_numbers()() % 4) {
    case 0:
      ASSERT_TRUE(tree.insert(item));
      break;
    case 1:
      kesa_add_avl_node(native, &item);
      break;
    case 2: {
      uint64_t cookie = 77;
      ASSERT_EQ(kesa_find_avl_node(native, &item.key, &cookie), nullptr);
      ASSERT_EQ(kesa_find_avl_nearest_node(native, cookie, KESA_AVL_LEFT), before);
      ASSERT_EQ(kesa_find_avl_nearest_node(native, cookie, KESA_AVL_RIGHT), behind);
      ASSERT_EQ(kesa_insert_avl_node(native, &item, cookie), 0);
      break;
    }
    default:
      if (before == nullptr && behind == nullptr) {
        ASSERT_TRUE(tree.insert(item));
      } else if (behind == nullptr || (before != nullptr && random_numbers()() % 2 == 0)) {
        ASSERT_EQ(kesa_insert_avl_node_specified(native, &item, before, KESA_AVL_RIGHT), 0);
      } else {
        ASSERT_EQ(kesa_insert_avl_node_specified(native, &item, behind, KESA_AVL_LEFT), 0);
      }
  }
}

void erase(Avl& tree, Item& item) { tree.erase(item); }

void add_up(kesa_rb_node* node, void*) {
  Item* const item = tirn::container_of<&Item::rb>(node);
  item->sum = item->key;
  for (kesa_rb_node* const child : {node->left, node->right}) {
    item->sum += child == nullptr ? 0 : tirn::container_of<&Item::rb>(child)->sum;
  }
}

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
int check(const kesa_avl_node* node, const kesa_avl_node* parent, uint32_t side, std::vector<Item*>& found) {
  if (node == nullptr) {
    return 0;
  }
  EXPECT_EQ(node->parent, parent);
  EXPECT_TRUE(parent == nullptr || node->childIndex == side);
  const int left = check(node->child[0], node, 0, found);
  found.push_back(tirn::container_of<&Item::avl>(node));
  const int right = check(node->child[1], node, 1, found);
  EXPECT_EQ(node->balance, right - left);
  EXPECT_LE(std::abs(right - left), 1);
  return std::max(left, right) + 1;
}

// The same; the height counts black nodes, and the sums are those of a naive recomputation.
int check(const kesa_rb_node* node, const kesa_rb_node* parent, std::vector<Item*>& found, uint64_t& sum) {
  if (node == nullptr) {
    return 0;
  }
  Item* const item = tirn::container_of<&Item::rb>(node);
  const bool is_black = (node->parentColor & KESA_RB_BLACK) != 0;
  EXPECT_EQ(node->parentColor & ~uint64_t{3}, reinterpret_cast<uintptr_t>(parent));
  EXPECT_EQ(node->parentColor & 2, item->spare);
  EXPECT_TRUE(is_black || (parent != nullptr && (parent->parentColor & KESA_RB_BLACK) != 0));
  uint64_t below = item->key;
  const int left = check(node->left, node, found, below);
  found.push_back(item);
  EXPECT_EQ(left, check(node->right, node, found, below));
  EXPECT_EQ(item->sum, below);
  sum += below;
  return left + (is_black ? 1 : 0);
}

std::vector<Item*> checked(Avl& tree) {
  std::vector<Item*> found;
  check(tree.native()->root, nullptr, 0, found);
  EXPECT_EQ(kesa_get_avl_node_num(tree.native()), found.size());
  return found;
}

std::vector<Item*> checked(Rb& tree) {
  std::vector<Item*> found;
  uint64_t sum = 0;
  check(tree.native()->node, nullptr, found, sum);
  return found;
}

template <class Tree>
void expect_like(const Model& model, Tree& tree) {
  std::vector<Item*> expected, forward;
  for (const auto& [key, item] : model) {
    expected.push_back(item);
  }
  ASSERT_EQ(checked(tree), expected);
  for (Item& item : tree) {
    forward.push_back(&item);
  }
  ASSERT_EQ(forward, expected);
  auto place = expected.rbegin();
  for (Item* item = tree.last(); item != nullptr; item = tree.prev(*item)) {
    ASSERT_TRUE(place != expected.rend() && item == *place++);
  }
  ASSERT_EQ(place, expected.rend());
}

// Random steps between full and empty, then a walk that empties the tree under its own feet.
template <class Tree>
class Trees : public testing::Test {
 protected:
  void step(size_t likely_fill) {
    Item& item = items[random_numbers()() % items.size()];
    const bool is_in = model.count(item.key) != 0;
    ASSERT_EQ(tree.find(item.key), is_in ? &item : nullptr);
    if (is_in && random_numbers()() % items.size() >= likely_fill) {
      erase(tree, item);
      model.erase(item.key);
    } else if (is_in) {
      Item twin{item};
      ASSERT_FALSE(tree.insert(twin));
    } else if (random_numbers()() % items.size() < likely_fill) {
      insert(tree, model, item);
      model[item.key] = &item;
    }
  }

  std::array<Item, 150> items{};
  Tree tree;
  Model model;
};
using Kinds = testing::Types<Avl, Rb>;
TYPED_TEST_SUITE(Trees, Kinds);

TYPED_TEST(Trees, StayInOrderAndBalanceAtEachStep) {
  for (size_t i = 0; i < this->items.size(); ++i) {
    this->items[i].key = i * 3;
  }
  for (int round = 0; round < 100; ++round) {
    const size_t likely_fill = random_numbers()() % this->items.size();
    for (int step = 0; step < 150; ++step) {
      this->step(likely_fill);
      expect_like(this->model, this->tree);
      if (this->HasFailure()) {
        return;
      }
    }
    for (Item& item : this->tree) {
      if (round % 4 == 0 || random_numbers()() % 2 == 0) {
        erase(this->tree, item);
        this->model.erase(item.key);
        expect_like(this->model, this->tree);
      }
    }
  }
}

int nonsense(const void*, const void*, uint64_t) { return 2; }

int compare(const void* key, const void* object, uint64_t zero) {
  EXPECT_EQ(zero, 0u);
  const auto order = *static_cast<const uint64_t*>(key) <=> static_cast<const Item*>(object)->key;
  return (order > 0) - (order < 0);
}

}  // namespace

TEST(AvlTree, RemovalOfTheRootAndItsLines) {
  LogCapture log;
  std::array<Item, 3> items{{{2}, {1}, {3}}};
  kesa_avl_tree tree;
  ASSERT_EQ(kesa_create_avl(&tree, compare, sizeof(Item), offsetof(Item, avl)), 0);
  for (Item& item : items) {
    kesa_add_avl_node(&tree, &item);
  }
  EXPECT_EQ(log.texts(), std::vector<std::string>{"Set AVL balance done."});
  kesa_remove_avl_node(&tree, &items[0]);
  EXPECT_EQ(tree.root, &items[1].avl);
  kesa_remove_avl_node(&tree, &items[1]);
  EXPECT_EQ(tree.root, &items[2].avl);
  EXPECT_EQ(log.count(HURN_DEBUG, "Remove node not need set balance."), 1u);
  EXPECT_EQ(kesa_destroy_avl(&tree), 0);
  EXPECT_TRUE(tree.root == nullptr && tree.nodeCount == 0);
}

TEST(AvlTree, ACompareFunctionThatAnswersNonsenseLosesNothing) {
  LogCapture log;
  std::array<Item, 2> items{{{1}, {2}}};
  kesa_avl_tree tree;
  ASSERT_EQ(kesa_create_avl_new(&tree, nonsense, nonsense, sizeof(Item), offsetof(Item, avl)), 0);
  kesa_add_avl_node(&tree, &items[0]);
  kesa_add_avl_node(&tree, &items[1]);
  EXPECT_TRUE(log.has(HURN_ERROR, "kesa_add_avl_node", "InsertAvlNode fail."));
  uint64_t cookie = 77;
  EXPECT_EQ(kesa_find_avl_node(&tree, &items[0].key, &cookie), nullptr);
  EXPECT_EQ(cookie, 0u);
  EXPECT_EQ(tree.root, &items[0].avl);
  EXPECT_EQ(kesa_get_avl_node_num(&tree), 1u);
}

TEST(AvlTree, WrongArgumentsChangeNothing) {
  LogCapture log(HURN_ERROR);
  Item item{1};
  kesa_avl_tree tree;
  ASSERT_EQ(kesa_create_avl(&tree, compare, sizeof(Item), offsetof(Item, avl)), 0);
  kesa_add_avl_node(&tree, &item);
  hurn_loglevel_set(TIRN_MODULE_ID, 0);  // the complaint about NULL does not ask for the level
  EXPECT_EQ(kesa_create_avl(&tree, nullptr, 0, 0), -1);
  EXPECT_EQ(kesa_create_avl_new(&tree, compare, nullptr, 0, 0), -1);
  EXPECT_EQ(kesa_destroy_avl(nullptr), -1);
  EXPECT_EQ(kesa_find_avl_node(nullptr, &item, nullptr), nullptr);
  EXPECT_EQ(kesa_find_avl_nearest_node(nullptr, 0, 0), nullptr);
  EXPECT_EQ(kesa_insert_avl_node(&tree, nullptr, 0), -1);
  kesa_add_avl_node(&tree, nullptr);
  kesa_remove_avl_node(nullptr, &item);
  EXPECT_EQ(kesa_get_avl_first_node(nullptr), nullptr);
  EXPECT_EQ(kesa_get_avl_last_node(nullptr), nullptr);
  EXPECT_EQ(kesa_get_avl_node_num(nullptr), UINT64_MAX);
  EXPECT_EQ(kesa_insert_avl_node_specified(&tree, &item, nullptr, 0), -1);
  EXPECT_EQ(log.count(HURN_ERROR, "NULL POINTER"), 12u);
  EXPECT_EQ(kesa_walk_avl_node(&tree, nullptr, 0), nullptr);
  EXPECT_EQ(kesa_walk_avl_node(&tree, &item, 2), nullptr);
  EXPECT_EQ(log.lines().size(), 12u);
  hurn_loglevel_set(TIRN_MODULE_ID, HURN_ERROR);
  EXPECT_EQ(kesa_insert_avl_node_specified(&tree, &item, &item, 2), -1);
  EXPECT_EQ(kesa_insert_avl_node_specified(&tree, nullptr, &item, 1), -1);
  EXPECT_EQ(log.count(HURN_ERROR, "Invalid Param"), 1u);
  EXPECT_EQ(log.count(HURN_ERROR, "InsertAvlNode fail: avl_tree=0x*, new_node=(nil), here=0x*, direction=1."), 1u);
  EXPECT_TRUE(tree.root == &item.avl && tree.nodeCount == 1 && item.avl.child[1] == nullptr);
}

TEST(RbTree, NodesInNoTreeAndReplacement) {
  Rb tree;
  EXPECT_TRUE(tree.empty() && tree.first() == nullptr && tree.last() == nullptr);
  std::array<Item, 7> items{};
  for (size_t i = 0; i < items.size(); ++i) {
    items[i].key = i;
    insert(tree, {}, items[i]);
    if (i == 3) {  // 1 above 0 and 2, and 3 below the successor
      EXPECT_EQ(kesa_rb_augment_erase_begin(&items[1].rb), &items[3].rb);
    }
  }
  Item free{99};
  kesa_rb_clear_node(&free.rb);
  EXPECT_TRUE(kesa_rb_next(&free.rb) == nullptr && kesa_rb_prev(&free.rb) == nullptr);
  for (Item& old : tree) {  // at the root, in the middle, at a leaf
    Item twin = old;
    twin.rb = {~0ull, nullptr, nullptr};
    tree.replace(old, twin);
    EXPECT_EQ(checked(tree)[old.key], &twin);
    tree.replace(twin, old);
  }
}
