// Counts the log lines of each group and holds back those beyond its limit.
#include "limit.h"

#include <time.h>

#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "hurn.h"
#include "line.h"

namespace tirn::logging {
namespace {

// A window is one word, so that its start and its count change together. The upper 40 bits are the start in
// milliseconds, which wraps after 34 years; the lower 24 bits count log lines.
constexpr unsigned kCountBits = 24;
constexpr uint64_t kCountMask = (uint64_t{1} << kCountBits) - 1;
constexpr uint64_t kTimeMask = (uint64_t{1} << (64 - kCountBits)) - 1;

// Groups 0 to 1023 are the modules. The group of a level is 1024 plus the level.
constexpr uint32_t kGroupCount = HURN_MODULE_COUNT + 8;

// All accesses are relaxed, because no word publishes other data.
struct Group {
  std::atomic<uint64_t> limit;   // log lines in the upper 32 bits, milliseconds in the lower; 0: no limit
  std::atomic<uint64_t> window;  // count 0: no window is open
  std::atomic<uint32_t> suppressed;

  bool refuse() {
    suppressed.fetch_add(1, std::memory_order_relaxed);
    return false;
  }
};

constinit Group groups[kGroupCount];

uint32_t level_group(uint32_t level) { return HURN_MODULE_COUNT + level; }

bool is_group(uint32_t group) {
  return group < HURN_MODULE_COUNT || (group < kGroupCount && is_level(group - HURN_MODULE_COUNT));
}

uint64_t milliseconds_now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000) & kTimeMask;
}

// Returns the window after one more log line, or 0 if the limit admits none.
uint64_t next_window(uint64_t window, uint64_t limit, uint64_t now) {
  const uint64_t count = window & kCountMask;
  const uint64_t elapsed = (now - (window >> kCountBits)) & kTimeMask;
  if (count == 0 || elapsed >= (limit & UINT32_MAX)) {
    return now << kCountBits | 1;
  }
  return count < limit >> 32 ? window + 1 : 0;
}

bool is_full(Group& group, uint64_t limit) {
  return limit != 0u && (next_window(group.window.load(std::memory_order_relaxed), limit, milliseconds_now()) == 0u);
}

bool claim(Group& group, uint64_t limit) {
  if (!limit) {
    return true;
  }
  const uint64_t now = milliseconds_now();
  uint64_t window = group.window.load(std::memory_order_relaxed);
  uint64_t next;
  do {
    next = next_window(window, limit, now);
  } while (next != 0u && !group.window.compare_exchange_weak(window, next, std::memory_order_relaxed));
  return next != 0;
}

}  // namespace

uint32_t group_named(const char* name) {
  if (name == nullptr) {
    return HURN_NO_GROUP;
  }
  for (uint32_t level = 0; level < 8; level++) {
    if (kLevelNames[level] != nullptr && !strcmp(name, kLevelNames[level])) {
      return level_group(level);
    }
  }
  uint32_t module = 0;
  const char* end = name + strlen(name);
  const auto [stop, error] = std::from_chars(name, end, module);
  return error == std::errc() && stop == end && module < HURN_MODULE_COUNT ? module : HURN_NO_GROUP;
}

bool set_limit(uint32_t group, uint32_t lines, uint32_t milliseconds) {
  if (!is_group(group)) {
    return false;
  }
  const uint64_t count = lines < kCountMask ? lines : kCountMask;
  groups[group].window.store(0, std::memory_order_relaxed);
  groups[group].limit.store(count && milliseconds ? count << 32 | milliseconds : 0, std::memory_order_relaxed);
  return true;
}

bool admit(uint32_t module, uint32_t level) {
  Group& of_module = groups[module_index(module)];
  Group& of_level = groups[level_group(level)];
  const uint64_t module_limit = of_module.limit.load(std::memory_order_relaxed);
  const uint64_t level_limit = of_level.limit.load(std::memory_order_relaxed);
  // A log line that one group refuses should not count in the other group's window, so the level is tested before the
  // module's window counts the log line. It still counts there if it then loses a race for the last place in the
  // level's window.
  if (is_full(of_level, level_limit)) {
    return of_level.refuse();
  }
  if (!claim(of_module, module_limit)) {
    return of_module.refuse();
  }
  return claim(of_level, level_limit) || of_level.refuse();
}

Suppressed take_suppressed(int which, uint32_t module, uint32_t level) {
  Group& group = groups[which ? level_group(level) : module_index(module)];
  Suppressed result{};
  if (!group.suppressed.load(std::memory_order_relaxed)) {
    return result;
  }
  result.count = group.suppressed.exchange(0, std::memory_order_relaxed);
  if (which) {
    snprintf(result.group, sizeof result.group, "%s", kLevelNames[level]);
  } else {
    snprintf(result.group, sizeof result.group, "%u", module_index(module));
  }
  return result;
}

}  // namespace tirn::logging
