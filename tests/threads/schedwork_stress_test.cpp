// Scheduled work under load: threads add and delete the same records, handlers add their own again, and in the second
// half the pool ends and starts all the time.
#include <gtest/gtest.h>

#include <array>
#include <random>

#include "pool_watch.h"
#include "support/random_seed.h"
#include "sync/together.h"

using namespace tirn::test;

namespace {

struct Item {
  kesa_sched_work work{};
  std::atomic<uint32_t> added{0}, runs{0}, deleted{0};

  // A positive result tells of a waiter that could not be woken.
  void add() { added += kesa_sched_add_work(&work) != -1; }
};
std::array<Item, 40> g_items;

int run_item(kesa_sched_work* work) {
  Item& item = *static_cast<Item*>(work->data);
  if (++item.runs % 4 != 0) {
    item.add();
  }
  return 0;
}

void load_pool(bool with_ends) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  together(4, [&](unsigned thread) {
    std::mt19937 random(random_seed() + thread);
    while (std::chrono::steady_clock::now() < end) {
      for (int i = 0; i < 50; ++i) {
        Item& item = g_items[random() % g_items.size()];
        random() % 8 != 0 ? item.add() : void(item.deleted += kesa_sched_delete_work(&item.work) == 0);
      }
      std::this_thread::yield();
      if (with_ends && thread == 0) {
        sched_work_destroy();
      }
    }
  });
}

}  // namespace

TEST(SchedworkStress, EachRecordRunsAsOftenAsItIsQueuedUnlessThePoolEnds) {
  for (Item& item : g_items) {
    kesa_sched_init_work(&item.work, run_item, &item);
  }
  load_pool(false);
  for (const Item& item : g_items) {
    EXPECT_TRUE(wait_until([&] { return item.runs + item.deleted == item.added; }))
        << item.runs << " + " << item.deleted << " != " << item.added;
    EXPECT_GT(item.runs, 100u);
  }
  load_pool(true);
  // A thread that was just being started at an end of the pool may be left uncounted, so there may be more.
  EXPECT_TRUE(block_threads(64));
  EXPECT_TRUE(free_threads());
}
