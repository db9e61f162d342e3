// Walks over the items of a list of CPUs, and scans an item that is a number or a range.
#ifndef TIRN_BASE_CPU_LIST_H
#define TIRN_BASE_CPU_LIST_H

#include <cstdint>
#include <cstring>

#include "libtirn/base/bounds.h"
#include "libtirn/base/log.h"

namespace tirn {

// Calls take(item, end) for each item of a comma-separated list, until one call returns false. The item is followed
// by the rest of the list; `end` points to the comma after it, or to the terminator, and may be overwritten. Returns
// whether each call returned true. A NULL list has no items.
template <typename Char, typename Take>
bool walk_items(Char* list, Take take) {
  for (Char* item = list; item != nullptr;) {
    Char* const end = item + std::strcspn(item, ",");
    Char* const next = *end == ',' ? end + 1 : nullptr;
    if (!take(item, end)) {
      return false;
    }
    item = next;
  }
  return true;
}

enum class RangeScan { kGood, kNoRange, kReversed };

// Scans the range that a text begins with. A single number is both ends. Logs a reversed range under the name of
// `function`. A text that is no range is logged by the caller, since each caller has its own text. The function is
// static because the log line names the source file.
static inline RangeScan scan_range(const char* text, uint32_t& start, uint32_t& end, const char* function) {
  const int fields = sscanf_s(text, "%u-%u", &start, &end);
  if (fields == 1) {
    end = start;
  } else if (fields != 2) {
    return RangeScan::kNoRange;
  }
  if (end < start) {
    TIRN_ERROR_AS(function, "Parse cpu mask %s fail, end:%u is less than start:%u", text, end, start);
    return RangeScan::kReversed;
  }
  return RangeScan::kGood;
}

}  // namespace tirn

#endif
