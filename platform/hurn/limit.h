// Limits on groups of log lines. A log line belongs to two groups, its module's and its level's.
#pragma once

#include <cstdint>

namespace tirn::logging {

uint32_t group_named(const char* name);

bool set_limit(uint32_t group, uint32_t lines, uint32_t milliseconds);

// Returns whether both groups admit a log line now. The group that refuses it counts it as suppressed.
bool admit(uint32_t module, uint32_t level);

struct Suppressed {
  uint32_t count;
  char group[12];
};

// Returns the name of the module's group (`which` 0) or the level's group (1) and the number of log lines that it has
// suppressed since the last call, and resets that number. The caller logs both before a log line that was admitted.
Suppressed take_suppressed(int which, uint32_t module, uint32_t level);

}  // namespace tirn::logging
