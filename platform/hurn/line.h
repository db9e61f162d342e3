// A log line on the caller's stack. Nothing here locks, allocates or reads the time zone.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "hurn.h"

namespace tirn::logging {

// Bit n is set if n is a level.
inline constexpr uint32_t kLevelBits = 1u << HURN_ERROR | 1u << HURN_WARNING | 1u << HURN_INFO | 1u << HURN_DEBUG;
inline constexpr const char* kLevelNames[8] = {nullptr,   nullptr, nullptr, "error",
                                               "warning", nullptr, "info",  "debug"};

constexpr bool is_level(uint32_t level) { return level < 8 && ((kLevelBits >> level & 1) != 0u); }

// Returns the index of a module in the tables. Ids beyond the tables follow module 0.
constexpr uint32_t module_index(uint32_t module) { return module < HURN_MODULE_COUNT ? module : 0; }

struct Source {
  uint32_t module;
  uint32_t level;
  const char* file;
  uint32_t line;
  const char* function;
};

struct Line {
  size_t body = 0;  // start of the level; for a system log, what precedes it is replaced
  size_t text = 0;  // start of the message
  size_t end = 0;   // end of the message, where a zero follows until close()
  char bytes[HURN_LINE_MAX + 1];

  // Writes the time stamp, the program, the process and the thread, then the level, the module and the place.
  void put_prefix(const char* program, const Source& source);

  // Appends the message to the prefix. A log line that would be longer than HURN_LINE_MAX is cut and ends with a
  // mark. Returns false if the C library refuses the format.
  bool put_text(const char* format, va_list arguments) __attribute__((format(printf, 2, 0)));

  // Removes the line feeds around the message, escapes the control characters within it, so that an argument cannot
  // forge a log line, and appends one line feed. After that, no zero ends the message.
  void close();

 private:
  void escape();
};

}  // namespace tirn::logging
