// One line on the caller's stack. Nothing here locks, allocates or looks at the time zone.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "hurn.h"

namespace tirn::logging {

// Bit n set: n is a level.
inline constexpr uint32_t kLevelBits = 1u << HURN_ERROR | 1u << HURN_WARNING | 1u << HURN_INFO | 1u << HURN_DEBUG;
inline constexpr const char* kLevelNames[8] = {nullptr,   nullptr, nullptr, "error",
                                               "warning", nullptr, "info",  "debug"};

constexpr bool is_level(uint32_t level) { return level < 8 && (kLevelBits >> level & 1); }

// A module id as the tables take it: ids beyond them follow module 0.
constexpr uint32_t module_index(uint32_t module) { return module < HURN_MODULE_COUNT ? module : 0; }

struct Source {
  uint32_t module;
  uint32_t level;
  const char* file;
  uint32_t line;
  const char* function;
};

struct Line {
  size_t body = 0;  // where the level stands; what precedes it a system log adds itself
  size_t text = 0;  // where the message begins
  size_t end = 0;   // behind the message, where a zero stands
  char bytes[HURN_LINE_MAX + 1];

  // Time stamp, program, process and thread, then level, module and place.
  void put_prefix(const char* program, const Source& source);

  // The message behind the prefix; what would make the line longer than HURN_LINE_MAX gives way to a mark.
  // False on a format that the C library refuses.
  bool put_text(const char* format, va_list arguments) __attribute__((format(printf, 2, 0)));

  // Takes off the line feeds around the message, shows the control characters within it escaped, so that an argument
  // cannot forge a line, and puts one line feed behind it. The message is no text with an end mark then.
  void close();

 private:
  void escape();
};

}  // namespace tirn::logging
