// Limits of groups of lines. A line belongs to two groups, its module's and its level's.
#pragma once

#include <cstdint>

namespace tirn::logging {

uint32_t group_named(const char* name);

bool set_limit(uint32_t group, uint32_t lines, uint32_t milliseconds);

// Whether both groups let a line through now. The group that does not counts it.
bool admit(uint32_t module, uint32_t level);

struct Suppressed {
  uint32_t count;
  char group[12];
};

// The lines that the module's (0) or the level's group (1) has held back since the last call, taken off its
// count. To be told with a line that was let through.
Suppressed take_suppressed(int which, uint32_t module, uint32_t level);

}  // namespace tirn::logging
