#include <bit>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "peers/peers.h"
#include "sites/container_site.h"
#include "support/bench.h"
#include "support/data.h"

namespace tirn::bench {
namespace {

struct Pick {
  uint64_t key;
  void* object;
};

// A container at its size, and objects that are out of it: the ones that went out first, whose surroundings no cache
// holds any more, come in first.
class Bed {
 public:
  Bed(const peer_set& calls, size_t size) : calls_(calls), batch_(std::min<size_t>(size, 4096)) {
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

  // Batches go out and others come in; one of both is timed.
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

  // From one place on in order, and from another behind the last.
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
  const peer_set& calls_;
  size_t batch_;
  std::unique_ptr<uint8_t[], Free> memory_;
  std::vector<Pick> in_;
  std::deque<Pick> out_;
};

struct Operation {
  const char* name;
  Sample (*measure)(Bed& bed, uint64_t count);
};
const Operation kInsert{"insert", [](Bed& bed, uint64_t count) { return bed.churn(count, true); }};
const Operation kErase{"erase", [](Bed& bed, uint64_t count) { return bed.churn(count, false); }};
const Operation kHit{"find", [](Bed& bed, uint64_t count) { return bed.find(count, true); }};
const Operation kMiss{"find_nothing", [](Bed& bed, uint64_t count) { return bed.find(count, false); }};
const Operation kWalk{"walk", [](Bed& bed, uint64_t count) { return bed.walk(count); }};

// The container is made in the group's own process, when it is first measured.
Row row(const peer_set& calls, const Operation& operation, size_t size) {
  auto bed = std::make_shared<std::unique_ptr<Bed>>();
  return {calls.name, [bed, &calls, operation, size](uint64_t count) {
            if (*bed == nullptr) {
              *bed = std::make_unique<Bed>(calls, size);
            }
            return operation.measure(**bed, count);
          }};
}

struct Contest {
  const char* name;
  const peer_set& ours;
  double target;
  std::vector<const char*> peers;
  std::vector<Operation> operations;
  const peer_set* shown = nullptr;
};

std::vector<Group> groups_of(const Contest& contest) {
  std::vector<Group> groups;
  for (const size_t size : {1000, 1000000}) {
    for (const Operation& operation : contest.operations) {
      Group group{
          .name = std::string("containers/") + contest.name + '/' + operation.name + '/' + std::to_string(size),
          .target = contest.target,
          .ours = row(contest.ours, operation, size)};
      for (const char* const name : contest.peers) {
        if (const peer_set* const peer = peer_set_named(name); peer != nullptr) {
          group.peers.push_back(row(*peer, operation, size));
        }
      }
      if (contest.shown != nullptr) {
        group.shown.push_back(row(*contest.shown, operation, size));
      }
      groups.push_back(group.peers.empty() ? Group{.name = group.name, .ours = group.ours} : group);
    }
  }
  return groups;
}

const Family containers{[] {
  const std::vector<Operation> all{kInsert, kHit, kMiss, kWalk, kErase};
  std::vector<Group> groups;
  for (const Contest& contest : {
           Contest{"rb", site_rb, 1.0, {"boost::intrusive::set"}, all},
           Contest{"avl", site_avl, 1.05, {"boost::intrusive::avl_set"}, all, &site_typed_avl},
           Contest{"hash", site_hash, 1.5, {"boost::intrusive::unordered_set"}, {kInsert, kHit, kMiss, kErase}},
           Contest{"hash_maps", site_hash, 0.8, {"std::unordered_map", "GHashTable"}, {kInsert, kHit}},
       }) {
    for (Group& group : groups_of(contest)) {
      groups.push_back(std::move(group));
    }
  }
  return groups;
}};

}  // namespace
}  // namespace tirn::bench
