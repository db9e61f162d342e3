// Sets and clears CPUs in masks, from lists of CPUs that may name partitions.
#include <algorithm>
#include <cstring>
#include <utility>

#include "libtirn/base/bounds.h"
#include "libtirn/base/cpu_list.h"
#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/cpu/cpum_groups.h"

using namespace tirn;
using namespace tirn::cpu;

namespace {

constexpr char kFunction[] = "kesa_cpum_parse_cpumask_as_list";  // log lines about an item name this function

// The partitions that a call has read, by their index among all partitions. Each partition is read once, however many
// lists name it. That is enough, since bits are only set, and it ends the walk over lists that name one another.
class ReadPartitions {
 public:
  // Returns whether there is room to note each partition; allocates it if needed.
  bool make_room() {
    if (seen_ != nullptr) {
      return true;
    }
    uint32_t count = 0;
    for_each_partition([&count](const kesa_cpu_group&, const kesa_cpu_partition&) { ++count; });
    if (count > sizeof own_) {
      block_ = tagged_block<bool>(count);
      std::fill_n(block_.get(), block_ != nullptr ? count : 0, false);
    }
    seen_ = count > sizeof own_ ? block_.get() : own_;
    return seen_ != nullptr;
  }

  // Notes a partition. Returns whether it was not noted before.
  bool note(uint32_t index) { return !std::exchange(seen_[index], true); }

  // Enters a list within a list. Returns false if the nesting is too deep for a small stack.
  bool descend() { return depth_ < kDeepest && ++depth_ != 0; }
  void ascend() { --depth_; }

 private:
  static constexpr uint32_t kDeepest = 128;
  uint32_t depth_ = 0;
  bool own_[256]{};  // a node has fewer partitions
  TaggedBlock<bool> block_;
  bool* seen_ = nullptr;
};

bool parse_list(const char* text, uint64_t* mask, ReadPartitions& read);

bool parse_range(const char* item, uint64_t* mask) {
  uint32_t start = 0;
  uint32_t end = 0;
  const RangeScan scan = scan_range(item, start, end, kFunction);
  if (scan == RangeScan::kNoRange) {
    TIRN_ERROR_AS(kFunction, "Parse cpu mask fail, invalid format:%s", item);
  }
  if (scan != RangeScan::kGood) {
    return false;
  }
  end = std::min(end, kLastCpu);
  for (uint32_t cpu = start; cpu <= end; ++cpu) {
    mask[cpu / 64] |= uint64_t{1} << cpu % 64;
  }
  return start <= end;
}

// Parses the lists of the partitions that an item names. Returns false, which is logged, if the lists are nested too
// deeply or there is no memory.
bool read_named(const char* item, const char* group, const char* partition, uint64_t* mask, ReadPartitions& read) {
  if (!read.make_room() || !read.descend()) {
    return TIRN_ERROR_AS(kFunction, "Parse cpu mask fail, invalid format:%s", item), false;
  }
  uint32_t index = 0;
  for_each_partition([&](const kesa_cpu_group& owner, const kesa_cpu_partition& candidate) {
    const bool is_named = (std::strcmp(group, "*") == 0 || std::strcmp(group, owner.name) == 0) &&
                          std::strcmp(partition, candidate.name) == 0;
    if (const uint32_t at = index++; is_named && read.note(at)) {
      parse_list(candidate.cpumask, mask, read);
    }
  });
  read.ascend();
  return true;
}

// Returns whether at least one item was valid. A bad item does not end the walk.
bool parse_list(const char* text, uint64_t* mask, ReadPartitions& read) {
  bool is_taken = false;
  walk_items(text, [&](const char* item, const char*) {
    char group[sizeof kesa_cpu_group::name];
    char partition[sizeof kesa_cpu_partition::name];
    const bool is_reference =
        kesa_cpum_init(nullptr) == kOk && sscanf_s(item, "%[^/,]/%[^,]", group, static_cast<unsigned>(sizeof group),
                                                   partition, static_cast<unsigned>(sizeof partition)) == 2;
    is_taken |= is_reference ? read_named(item, group, partition, mask, read) : parse_range(item, mask);
    return true;
  });
  return is_taken;
}

}  // namespace

int kesa_cpum_parse_cpumask(const char* text, uint64_t* mask) {
  const NoCancellation guard;
  ReadPartitions read;
  return parse_list(text, mask, read) ? kOk : kFail;
}

int kesa_cpum_clear_cpumask_of_iod_poll(uint64_t* mask) {
  constexpr uint64_t kPolling = 2;  // the number of CPUs at the start of a range that poll
  if (kesa_cpum_init(nullptr) != kOk) {
    return kFail;
  }
  for_each_partition([mask](const kesa_cpu_group&, const kesa_cpu_partition& partition) {
    uint32_t start = 0;
    uint32_t end = 0;
    if (std::strcmp(partition.name, "IOD_NORMAL") != 0 || sscanf_s(partition.cpumask, "%u-%u", &start, &end) != 2 ||
        start + kPolling > end) {
      return;
    }
    // The end is excluded, so CPU 1023 is never cleared.
    for (uint64_t cpu = start; cpu < std::min<uint64_t>(start + kPolling, kLastCpu); ++cpu) {
      mask[cpu / 64] &= ~(uint64_t{1} << cpu % 64);
    }
  });
  return kOk;
}
