// Implements the CPU masks of tirn/cpumask.h.
#include "tirn/cpumask.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "libtirn/base/bounds.h"
#include "libtirn/base/cpu_list.h"
#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"
#include "libtirn/base/once.h"
#include "tirn/bitops.h"

using namespace tirn;

namespace {

constinit Once g_masks_loaded;

kesa_cpumask g_possible_mask;
kesa_cpumask g_online_mask;
kesa_cpumask g_present_mask;

int32_t load(kesa_cpumask* mask, const char* path) {
  return load_cpumask(mask, path, static_cast<uint32_t>(std::strlen(path)));
}

int load_masks() {
  for (kesa_cpumask* mask : {cpu_possible_mask, cpu_online_mask, cpu_present_mask}) {
    init_cpumask_bit(mask, KESA_CPUMASK_WORDS);
  }
  const int32_t possible = load(cpu_possible_mask, "/sys/devices/system/cpu/possible");
  const int32_t online = load(cpu_online_mask, "/sys/devices/system/cpu/online");
  const int32_t present = load(cpu_present_mask, "/sys/devices/system/cpu/present");
  if (possible < 0 || online < 0 || present < 0) {
    TIRN_ERROR_AS("cpumask_init", "Load_cpumask failed. possible_cpu = %d, online_cpu = %d, max_cpu=%d\n", possible,
                  online, present);
    return kFail;
  }
  return kOk;
}

uint32_t held_at_end(uint64_t cpu) { return static_cast<uint32_t>(std::min<uint64_t>(cpu, KESA_CPU_MAX)); }

}  // namespace

kesa_cpumask* cpu_possible_mask = &g_possible_mask;
kesa_cpumask* cpu_online_mask = &g_online_mask;
kesa_cpumask* cpu_present_mask = &g_present_mask;

int32_t cpumask_init() { return g_masks_loaded.run(load_masks); }

int32_t load_cpumask(kesa_cpumask* mask, const char* path, uint32_t) {
  char list[256]{};
  {
    const NoCancellation guard;
    const File file(std::fopen(path, "re"));
    if (file == nullptr || std::fgets(list, sizeof list, file.get()) == nullptr) {
      return kFail;
    }
  }
  if (list[0] == '\n') {
    return 0;
  }
  int32_t highest = 0;
  walk_items(list, [&](const char* token, char* end) {
    *end = '\0';
    highest = std::max(highest, kesa_set_cpumask_bit(reinterpret_cast<uint8_t*>(mask), token));
    return true;
  });
  return highest;
}

void init_cpumask_bit(void* mask, int32_t words) {
  if (words > 0) {
    std::memset(mask, 0, static_cast<size_t>(words) * sizeof(uint64_t));
  }
}

int32_t kesa_set_cpumask_bit(uint8_t* mask, const char* token) {
  const bool is_range = std::strchr(token, '-') != nullptr;
  int lower = 0;
  int upper = 0;
  const int found = is_range ? sscanf_s(token, "%d-%d", &lower, &upper) : sscanf_s(token, "%d", &lower);
  if (found < 0) {
    TIRN_ERROR("sscanf_s failed.ret is %d.", found);
  }
  if (found != (is_range ? 2 : 1)) {
    return 0;  // a token that lacks a number names no CPU
  }
  if (!is_range) {
    upper = lower;
  }
  // Numbers outside the mask are skipped, so that a corrupt list cannot cause a write beyond it.
  const int last = std::min(upper, static_cast<int>(KESA_CPU_MAX) - 1);
  for (int cpu = std::max(lower, 0); cpu <= last; ++cpu) {
    mask[cpu / 8] = static_cast<uint8_t>(mask[cpu / 8] | 1u << cpu % 8);
  }
  return upper;
}

uint32_t kesa_first_cpu(const kesa_cpumask* mask) { return held_at_end(find_first_bit(mask, KESA_CPU_MAX)); }

uint32_t kesa_next_cpu(uint32_t n, const kesa_cpumask* mask) {
  return held_at_end(find_next_bit(mask, KESA_CPU_MAX, uint64_t{n} + 1));
}
