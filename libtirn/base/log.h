// Macros that write log lines: hurn() after hurn_level_check(), with the plain names of the file and the function.
#ifndef TIRN_BASE_LOG_H
#define TIRN_BASE_LOG_H

#include <cstddef>
#include <cstdint>

#include "hurn.h"
#include "libtirn/base/cancellation.h"
#include "libtirn/base/rate_guard.h"
#include "tirn/base.h"

namespace tirn {

inline constexpr uint32_t kModule = TIRN_MODULE_ID;
inline constexpr uint32_t kError = TIRN_LOG_ERROR;
inline constexpr uint32_t kWarning = TIRN_LOG_WARNING;
inline constexpr uint32_t kInfo = TIRN_LOG_INFO;
inline constexpr uint32_t kDebug = TIRN_LOG_DEBUG;

template <size_t N>
struct FileStem {
  char text[N]{};
};

// Returns the base name without its ending: "libtirn/init/kesa_init.cpp" gives "kesa_init".
template <size_t N>
consteval FileStem<N> file_stem(const char (&path)[N]) {
  size_t begin = 0;
  size_t end = N - 1;
  for (size_t i = 0; i < N - 1; ++i) {
    if (path[i] == '/') {
      begin = i + 1;
    }
  }
  for (size_t i = begin; i < N - 1; ++i) {
    if (path[i] == '.') {
      end = i;
    }
  }
  FileStem<N> stem;
  for (size_t i = begin; i < end; ++i) {
    stem.text[i - begin] = path[i];
  }
  return stem;
}

// The source file being compiled, also for a log line that a header writes.
static constexpr auto kFile = file_stem(__BASE_FILE__);

}  // namespace tirn

// Writes a log line, for all macros below but TIRN_LOG_RAW. No cancellation point: the caller may hold anything.
#define TIRN_LOG_WRITE(module, level, file, line, function, ...)         \
  do {                                                                   \
    const ::tirn::NoCancellation tirn_log_guard;                         \
    hurn((module), (level), (file), (line), (function), 0, __VA_ARGS__); \
  } while (0)

// Writes a log line under another module's id or another function's name. With its level off it only costs the level
// test.
#define TIRN_LOG_AS(module, level, function, ...)                                               \
  do {                                                                                          \
    if (hurn_level_check((module), (level)) == 0) {                                             \
      TIRN_LOG_WRITE((module), (level), ::tirn::kFile.text, __LINE__, (function), __VA_ARGS__); \
    }                                                                                           \
  } while (0)

// Writes a log line without a level test.
#define TIRN_LOG_ALWAYS(module, level, ...) \
  TIRN_LOG_WRITE((module), (level), ::tirn::kFile.text, __LINE__, __func__, __VA_ARGS__)

// Writes the text alone, without a prefix, for places that may risk no level test, lock or allocation.
#define TIRN_LOG_RAW(...)                        \
  do {                                           \
    const ::tirn::NoCancellation tirn_log_guard; \
    hurn_original(__VA_ARGS__);                  \
  } while (0)

#define TIRN_LOG(level, ...) TIRN_LOG_AS(::tirn::kModule, level, __func__, __VA_ARGS__)
#define TIRN_ERROR(...) TIRN_LOG(::tirn::kError, __VA_ARGS__)
#define TIRN_WARNING(...) TIRN_LOG(::tirn::kWarning, __VA_ARGS__)
#define TIRN_INFO(...) TIRN_LOG(::tirn::kInfo, __VA_ARGS__)
#define TIRN_DEBUG(...) TIRN_LOG(::tirn::kDebug, __VA_ARGS__)

// Writes a log line at a site that may repeat at a high rate. `first` is the level that is tested before anything
// else, `level` the level of the log line itself, and `report` that of the log line with the number of suppressed
// ones. A log line whose own level is off still counts as printed.
#define TIRN_LIMITED(first, level, report, ...) TIRN_LIMITED_AS(__func__, first, level, report, __VA_ARGS__)

// Does the same under another function's name.
#define TIRN_LIMITED_AS(function, first, level, report, ...)                                    \
  do {                                                                                          \
    static constinit ::tirn::RateGuard tirn_rate_guard;                                         \
    if (tirn_rate_guard.admit((first), (report), {::tirn::kFile.text, (function), __LINE__})) { \
      TIRN_LOG_AS(::tirn::kModule, level, (function), __VA_ARGS__);                             \
    }                                                                                           \
  } while (0)

#endif
