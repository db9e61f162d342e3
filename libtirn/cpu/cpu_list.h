// Texts that list CPUs: the walk over their items, and an item that is a number or a range.
#ifndef TIRN_CPU_CPU_LIST_H
#define TIRN_CPU_CPU_LIST_H

#include <cstdint>
#include <cstring>

#include "libtirn/base/bounds.h"
#include "libtirn/base/log.h"

namespace tirn::cpu {

// Calls take(item) for each item of the list, with the text from the item on, until one gives false: false then.
template <typename Take>
bool walk_items(const char* text, Take take) {
  for (const char* item = text; item != nullptr;) {
    if (!take(item)) {
      return false;
    }
    const char* const comma = std::strchr(item, ',');
    item = comma != nullptr ? comma + 1 : nullptr;
  }
  return true;
}

// The range that `item` begins with; a number is its own end. False where there is none, with a line under the name of
// `function`; `bad_form` says that line for what is neither.
template <typename BadForm>
bool scan_range(const char* item, uint32_t& start, uint32_t& end, const char* function, BadForm bad_form) {
  const int fields = sscanf_s(item, "%u-%u", &start, &end);
  if (fields == 1) {
    end = start;
  } else if (fields != 2) {
    bad_form();
    return false;
  }
  if (end < start) {
    TIRN_LOG_AS(kModule, kError, function, "Parse cpu mask %s fail, end:%u is less than start:%u", item, end, start);
    return false;
  }
  return true;
}

}  // namespace tirn::cpu

#endif
