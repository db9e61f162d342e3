// Texts that list CPUs.
#include <algorithm>
#include <cstring>

#include "libtirn/base/bounds.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "tirn/cpumask.h"

namespace {

constexpr uint32_t kLastCpu = 1023;

// Whether the item that `text` begins with was good.
bool parse_item(const char* text, uint64_t* mask) {
  constexpr char kFunction[] = "kesa_cpum_parse_cpumask_as_list";
  uint32_t start = 0;
  uint32_t end = 0;
  const int fields = sscanf_s(text, "%u-%u", &start, &end);
  if (fields == 1) {
    end = start;
  } else if (fields != 2) {
    TIRN_LOG_AS(tirn::kModule, tirn::kError, kFunction, "Parse cpu mask fail, invalid format:%s", text);
    return false;
  } else if (end < start) {
    TIRN_LOG_AS(tirn::kModule, tirn::kError, kFunction, "Parse cpu mask %s fail, end:%u is less than start:%u", text,
                end, start);
    return false;
  }
  end = std::min(end, kLastCpu);
  for (uint32_t cpu = start; cpu <= end; ++cpu) {
    mask[cpu / 64] |= uint64_t{1} << cpu % 64;
  }
  return start <= end;
}

}  // namespace

int kesa_cpum_parse_cpumask(const char* text, uint64_t* mask) {
  int result = tirn::kFail;
  while (text != nullptr) {
    if (parse_item(text, mask)) {
      result = tirn::kOk;
    }
    const char* const comma = std::strchr(text, ',');
    text = comma != nullptr ? comma + 1 : nullptr;
  }
  return result;
}
