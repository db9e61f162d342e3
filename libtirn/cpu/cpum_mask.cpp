// Masks from lists of CPUs that may name partitions.
#include <algorithm>
#include <cstring>

#include "libtirn/base/bounds.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/cpu/cpu_list.h"
#include "libtirn/cpu/cpum_groups.h"

namespace {

using namespace tirn::cpu;

constexpr char kFunction[] = "kesa_cpum_parse_cpumask_as_list";  // whose work an item's lines tell of
constexpr int kDeepest = 256;  // of references in references: the stack ends somewhere

// A partition whose list is being read, and the one that named it.
struct Reference {
  const kesa_cpu_partition* partition;
  const Reference* by;
};

bool is_being_read(const kesa_cpu_partition& partition, const Reference* by) {
  int depth = 0;
  for (; by != nullptr; by = by->by) {
    if (by->partition == &partition || ++depth == kDeepest) {
      return true;
    }
  }
  return false;
}

bool parse_list(const char* text, uint64_t* mask, const Reference* by);

// One that is being read already is not taken.
bool parse_reference(const char* group, const char* name, uint64_t* mask, const Reference* by) {
  bool is_taken = true;
  for_each_partition([&](const kesa_cpu_group& owner, const kesa_cpu_partition& partition) {
    if ((std::strcmp(group, "*") != 0 && std::strcmp(group, owner.name) != 0) ||
        std::strcmp(name, partition.name) != 0) {
      return;
    }
    if (is_being_read(partition, by)) {
      is_taken = false;
      return;
    }
    const Reference reference{&partition, by};
    parse_list(partition.cpumask, mask, &reference);
  });
  return is_taken;
}

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
bool parse_list(const char* text, uint64_t* mask, const Reference* by) {
  bool is_taken = false;
  walk_items(text, [&](const char* item) {
    char group[sizeof kesa_cpu_group::name];
    char partition[sizeof kesa_cpu_partition::name];
    if (kesa_cpum_init(nullptr) == tirn::kOk &&
        sscanf_s(item, "%[^/,]/%[^,]", group, static_cast<unsigned>(sizeof group), partition,
                 static_cast<unsigned>(sizeof partition)) == 2) {
      is_taken |= parse_reference(group, partition, mask, by);
    } else {
      is_taken |= parse_range(item, mask);
    }
    return true;
  });
  return is_taken;
}

}  // namespace

int kesa_cpum_parse_cpumask(const char* text, uint64_t* mask) {
  return parse_list(text, mask, nullptr) ? tirn::kOk : tirn::kFail;
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
