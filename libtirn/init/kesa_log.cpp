// The log functions that programs call: thin passes to the log library.
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "tirn/init.h"

using namespace tirn;

int kesa_log_init(const char* program, const char* sink) { return hurn_init(program, sink); }

void kesa_log_destroy() { hurn_destroy(); }

int kesa_log_level_set(uint32_t module, uint32_t level) { return hurn_loglevel_set(module, level); }

int kesa_log_level_get(uint32_t module) { return hurn_loglevel_get(module); }

int kesa_ratelimit_set(const char* group, uint32_t lines, uint32_t milliseconds) {
  return hurn_ratelimit_set(hurn_get_group_id(group), lines, milliseconds);
}

int kesa_log_register_callback(const hurn_content_record* record) {
  const hurn_content_record none{};
  hurn_register_content_callback(record != nullptr ? record : &none);
  return kOk;
}
