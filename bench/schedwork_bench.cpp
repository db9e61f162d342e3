// Scheduled work: how soon a queued record runs, and how many run in a second.
#include <vector>

#include "starts.h"
#include "tirn/schedwork.h"

namespace tirn::bench {
namespace {

struct Item {
  kesa_sched_work work;
  peer_job job;
  void* arg;
};

int run_item(kesa_sched_work* work) {
  const Item& item = *static_cast<Item*>(work->data);
  item.job(item.arg);
  return 0;
}

// Returns records that are initialised once, as those of a program are.
std::vector<Item>& items(peer_job job, void* arg, unsigned count) {
  static std::vector<Item> made;
  if (made.size() < count) {
    made.resize(count);
    for (Item& item : made) {
      kesa_sched_init_work(&item.work, run_item, &item);
    }
  }
  if (made[0].job != job || made[0].arg != arg) {
    for (Item& item : made) {
      item.job = job;
      item.arg = arg;
    }
  }
  return made;
}

void add_one(peer_job job, void* arg) { kesa_sched_add_work(&items(job, arg, 1)[0].work); }

void add_many(peer_job job, void* arg, unsigned count) {
  std::vector<Item>& made = items(job, arg, count);
  for (unsigned i = 0; i < count; ++i) {
    kesa_sched_add_work(&made[i].work);
  }
}

constexpr peer_pool kOurs{"kesa_sched_add_work", add_one, nullptr, kPause, add_many};

std::string start_pool() { return sched_work_init() == 0 ? "" : "the pool cannot be started"; }

const Family schedwork{[] {
  return std::vector<Group>{
      group_of_starts({.name = "schedwork/push_to_run",
                       .target = 1.2,
                       .unit = kMicroseconds,
                       .ours = row_of_starts(kToFirst, kOurs),
                       .peers = peers_of_starts(kToFirst, {kGlibPool}),
                       .shown = peers_of_starts(kToFirst, {kBareWorker, kUvPool, kTbbArena})},
                      start_pool),
      group_of_starts({.name = "schedwork/busy_workers",
                       .target = 0.7,
                       .ours = row_of_flood(kOurs),
                       .peers = peers_of_flood({kGlibPool, kUvPool, kTbbArena})},
                      start_pool),
  };
}};

}  // namespace
}  // namespace tirn::bench
