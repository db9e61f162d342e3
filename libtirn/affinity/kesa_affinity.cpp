#include "tirn/affinity.h"

#include <cstdlib>
#include <cstring>

#include "libtirn/base/bounds.h"
#include "libtirn/base/log.h"
#include "libtirn/base/once.h"
#include "libtirn/base/result.h"
#include "tirn/thread.h"

namespace {

constexpr char kSection[] = "THREAD_CPU_AFFINITY_LIST";

constinit tirn::Once g_initialised;

// The kernel's configuration is not read yet.
int kesa_cst_getItem(const char*, const char*, char*, uint64_t) { return tirn::kFail; }

// Logs under the name of the exported function whose work this is.
int read_level_of_process() {
  char name[256];
  if (kesa_get_process_name(name, sizeof name) != tirn::kOk) {
    TIRN_LOG_AS(tirn::kModule, tirn::kInfo, "kesa_affinity_init",
                "kesa_get_process_name failed, can't set affinity.");
    return tirn::kFail;
  }
  return std::strcmp(name, "app_data") == 0 ? kesa_parse_affinity_level("affinity_level_1", &g_affinityLevel_1)
                                            : tirn::kOk;
}

}  // namespace

kesa_affinity_level g_affinityLevel_1;

int kesa_affinity_init() { return g_initialised.run(read_level_of_process); }

int kesa_affinity_exit() { return tirn::kOk; }

int kesa_parse_affinity_level(const char* level, kesa_affinity_level* record) {
  if (level == nullptr || record == nullptr) {
    return tirn::kFail;
  }
  CPU_ZERO(&record->cpus);
  char value[256]{};
  if (kesa_cst_getItem(kSection, level, value, sizeof value) != tirn::kOk) {
    TIRN_INFO("Can not find the item(%s) in section(%s).", level, kSection);
    return tirn::kFail;
  }
  if (strncpy_s(record->affinityLevelName, sizeof record->affinityLevelName, level,
                sizeof record->affinityLevelName - 1) != 0) {
    TIRN_INFO("strncpy_s to affinitySet.affinityLevelName from %s failed.", level);
    return tirn::kFail;
  }
  return kesa_parse_affinity_value(value, record);
}

int kesa_parse_affinity_value(char* text, kesa_affinity_level* record) {
  if (text == nullptr || record == nullptr) {
    return tirn::kOk;
  }
  char* rest = nullptr;
  for (const char* item = strtok_r(text, ",", &rest); item != nullptr; item = strtok_r(nullptr, ",", &rest)) {
    char* end = nullptr;
    const unsigned long cpu = std::strtoul(item, &end, 10);
    if (end != item && cpu < CPU_SETSIZE) {
      CPU_SET(cpu, &record->cpus);
    }
  }
  return tirn::kOk;
}

kesa_affinity_level* kesa_get_affinity_entity(const char* level) {
  return level != nullptr && std::strcmp(level, g_affinityLevel_1.affinityLevelName) == 0 ? &g_affinityLevel_1
                                                                                          : nullptr;
}

int kesa_set_thread_affinity(pthread_t thread, const char* level) {
  if (level == nullptr) {
    return tirn::kFail;
  }
  const kesa_affinity_level* const found = kesa_get_affinity_entity(level);
  if (found == nullptr) {
    return tirn::kOk;
  }
  if (kesa_thrd_setbindcpu(thread, &found->cpus) != tirn::kOk) {
    TIRN_INFO("kesa_thrd_setbindcpu for tid(%lu) with(%s) failed.", thread, level);
    return tirn::kFail;
  }
  return tirn::kOk;
}
