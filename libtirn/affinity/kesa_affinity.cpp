// Implements the affinity levels of tirn/affinity.h.
#include "tirn/affinity.h"

#include <cstring>

#include "libtirn/base/bounds.h"
#include "libtirn/base/cpu_list.h"
#include "libtirn/base/log.h"
#include "libtirn/base/once.h"
#include "libtirn/base/result.h"
#include "tirn/cfg.h"
#include "tirn/thread.h"

using namespace tirn;

namespace {

constexpr char kSection[] = "THREAD_CPU_AFFINITY_LIST";

static_assert(sizeof(kesa_affinity_level) == 192 && offsetof(kesa_affinity_level, cpus) == 64);

constinit Once g_initialised;

// Reads the level if this process has one; a level that cannot be read is not looked for again. Logs under the name
// of the exported kesa_affinity_init.
int read_level_of_process() {
  char name[256];
  if (kesa_get_process_name(name, sizeof name) != kOk) {
    return TIRN_INFO_AS("kesa_affinity_init", "kesa_get_process_name failed, can't set affinity."), kFail;
  }
  if (std::strcmp(name, "app_data") == 0) {
    kesa_parse_affinity_level("affinity_level_1", &g_affinityLevel_1);
  }
  return kOk;
}

}  // namespace

kesa_affinity_level g_affinityLevel_1;

int kesa_affinity_init() { return g_initialised.run(read_level_of_process); }

int kesa_affinity_exit() { return kOk; }

int kesa_parse_affinity_level(const char* level, kesa_affinity_level* record) {
  if (level == nullptr || record == nullptr) {
    return kFail;
  }
  CPU_ZERO(&record->cpus);
  char value[256]{};
  if (kesa_cst_getItem(kSection, level, value, sizeof value) != kOk) {
    return TIRN_INFO("Can not find the item(%s) in section(%s).", level, kSection), kFail;
  }
  if (strncpy_s(record->affinityLevelName, sizeof record->affinityLevelName, level,
                sizeof record->affinityLevelName - 1) != 0) {
    return TIRN_INFO("strncpy_s to affinitySet.affinityLevelName from %s failed.", level), kFail;
  }
  return kesa_parse_affinity_value(value, record);
}

int kesa_parse_affinity_value(char* text, kesa_affinity_level* record) {
  if (text == nullptr || record == nullptr) {
    return kOk;
  }
  walk_items(text, [record](const char* item, char* end) {
    *end = '\0';
    uint32_t cpu = CPU_SETSIZE;
    char after;
    if (std::strchr(item, '-') == nullptr && sscanf_s(item, "%u %c", &cpu, &after, 1u) == 1 && cpu < CPU_SETSIZE) {
      CPU_SET(cpu, &record->cpus);
    }
    return true;
  });
  return kOk;
}

kesa_affinity_level* kesa_get_affinity_entity(const char* level) {
  return level != nullptr && std::strcmp(level, g_affinityLevel_1.affinityLevelName) == 0 ? &g_affinityLevel_1
                                                                                          : nullptr;
}

int kesa_set_thread_affinity(pthread_t thread, const char* level) {
  if (level == nullptr) {
    return kFail;
  }
  const kesa_affinity_level* const found = kesa_get_affinity_entity(level);
  if (found == nullptr) {
    return kOk;
  }
  if (kesa_thrd_setbindcpu(thread, &found->cpus) != kOk) {
    return TIRN_INFO("kesa_thrd_setbindcpu for tid(%lu) with(%s) failed.", thread, level), kFail;
  }
  return kOk;
}
