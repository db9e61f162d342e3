// Masks from lists of CPUs that may name partitions.
#include <algorithm>
#include <cstring>

#include "libtirn/base/bounds.h"
#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/cpu/cpu_list.h"
#include "libtirn/cpu/cpum_groups.h"

namespace {

using namespace tirn::cpu;

constexpr char kFunction[] = "kesa_cpum_parse_cpumask_as_list";  // whose work an item's lines tell of

// The partitions that a list names, in the order of all. Bits are only ever set, so each is read once, however often and
// by whomever it is named: lists that name one another come to an end, and take no stack.
class NamedPartitions {
 public:
  // Without memory it adds nothing.
  void name(const char* group, const char* partition) {
    if (states_ == nullptr && !make_room()) {
      return;
    }
    uint32_t index = 0;
    for_each_partition([&](const kesa_cpu_group& owner, const kesa_cpu_partition& candidate) {
      State& state = states_.get()[index++];
      if (state == State::kUnnamed && (std::strcmp(group, "*") == 0 || std::strcmp(group, owner.name) == 0) &&
          std::strcmp(partition, candidate.name) == 0) {
        state = State::kNamed;
        is_one_unread_ = true;
      }
    });
  }

  // Calls read(list) for each that is named, also for those that such a list names.
  template <typename Read>
  void read_all(Read read) {
    while (is_one_unread_) {
      is_one_unread_ = false;
      uint32_t index = 0;
      for_each_partition([&](const kesa_cpu_group&, const kesa_cpu_partition& partition) {
        if (State& state = states_.get()[index++]; state == State::kNamed) {
          state = State::kRead;
          read(partition.cpumask);
        }
      });
    }
  }

 private:
  enum class State : uint8_t { kUnnamed = 0, kNamed, kRead };

  bool make_room() {
    uint32_t count = 0;
    for_each_partition([&count](const kesa_cpu_group&, const kesa_cpu_partition&) { ++count; });
    states_ = tirn::tagged_block<State>(count + 1);
    if (states_ != nullptr) {
      std::fill_n(states_.get(), count + 1, State::kUnnamed);
    }
    return states_ != nullptr;
  }

  tirn::TaggedBlock<State> states_;
  bool is_one_unread_ = false;
};

bool parse_range(const char* item, uint64_t* mask) {
  uint32_t start = 0;
  uint32_t end = 0;
  if (!scan_range(item, start, end, kFunction, [item] {
        TIRN_LOG_AS(tirn::kModule, tirn::kError, kFunction, "Parse cpu mask fail, invalid format:%s", item);
      })) {
    return false;
  }
  end = std::min(end, kLastCpu);
  for (uint32_t cpu = start; cpu <= end; ++cpu) {
    mask[cpu / 64] |= uint64_t{1} << cpu % 64;
  }
  return start <= end;
}

// Whether an item was taken. A bad one does not end the walk.
bool parse_list(const char* text, uint64_t* mask, NamedPartitions& named) {
  bool is_taken = false;
  walk_items(text, [&](const char* item) {
    char group[sizeof kesa_cpu_group::name];
    char partition[sizeof kesa_cpu_partition::name];
    const bool is_reference = kesa_cpum_init(nullptr) == tirn::kOk &&
                              sscanf_s(item, "%[^/,]/%[^,]", group, static_cast<unsigned>(sizeof group), partition,
                                       static_cast<unsigned>(sizeof partition)) == 2;
    if (is_reference) {
      named.name(group, partition);
    }
    is_taken |= is_reference || parse_range(item, mask);
    return true;
  });
  return is_taken;
}

}  // namespace

int kesa_cpum_parse_cpumask(const char* text, uint64_t* mask) {
  NamedPartitions named;
  const bool is_taken = parse_list(text, mask, named);
  named.read_all([&](const char* list) { parse_list(list, mask, named); });
  return is_taken ? tirn::kOk : tirn::kFail;
}

int kesa_cpum_clear_cpumask_of_iod_poll(uint64_t* mask) {
  constexpr uint64_t kPolling = 2;  // the first CPUs of a range poll
  if (kesa_cpum_init(nullptr) != tirn::kOk) {
    return tirn::kFail;
  }
  for_each_partition([mask](const kesa_cpu_group&, const kesa_cpu_partition& partition) {
    uint32_t start = 0;
    uint32_t end = 0;
    if (std::strcmp(partition.name, "IOD_NORMAL") != 0 || sscanf_s(partition.cpumask, "%u-%u", &start, &end) != 2 ||
        start + kPolling > end) {
      return;
    }
    for (uint64_t cpu = start; cpu < std::min<uint64_t>(start + kPolling, kLastCpu); ++cpu) {
      mask[cpu / 64] &= ~(uint64_t{1} << cpu % 64);
    }
  });
  return tirn::kOk;
}
