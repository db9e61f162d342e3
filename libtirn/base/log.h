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

// Writes a log line or a text. Neither is a cancellation point: the caller may hold anything. These macros and those
// built on them, except TIRN_LIMITED, are expressions, so that a function can log and return in one statement:
//
//   return TIRN_ERROR("Param is NULL."), kFail;
#define TIRN_LOG_WRITE(module, level, file, line, function, ...) \
  (static_cast<void>(::tirn::NoCancellation()),                  \
   static_cast<void>(hurn((module), (level), (file), (line), (function), 0, __VA_ARGS__)))

// Writes the text alone, without a prefix, for places that may risk no level test, lock or allocation.
#define TIRN_LOG_RAW(...) (static_cast<void>(::tirn::NoCancellation()), static_cast<void>(hurn_original(__VA_ARGS__)))

// Writes a log line of this source file, without a level test.
#define TIRN_LOG_HERE(level, function, ...) \
  TIRN_LOG_WRITE(::tirn::kModule, level, ::tirn::kFile.text, __LINE__, function, __VA_ARGS__)
#define TIRN_ERROR_ALWAYS_AS(function, ...) TIRN_LOG_HERE(::tirn::kError, function, __VA_ARGS__)

// Writes a log line if its level is on; otherwise it only costs the level test.
#define TIRN_LOG_AS(level, function, ...)                                                        \
  (hurn_level_check(::tirn::kModule, (level)) == 0 ? TIRN_LOG_HERE(level, function, __VA_ARGS__) \
                                                   : static_cast<void>(0))

// The log line names the function that it stands in or, with _AS, the one that is given. A helper gives a fixed name,
// its own or that of the function whose work it does, so that renaming the helper changes no log line.
#define TIRN_ERROR_AS(function, ...) TIRN_LOG_AS(::tirn::kError, function, __VA_ARGS__)
#define TIRN_WARNING_AS(function, ...) TIRN_LOG_AS(::tirn::kWarning, function, __VA_ARGS__)
#define TIRN_INFO_AS(function, ...) TIRN_LOG_AS(::tirn::kInfo, function, __VA_ARGS__)
#define TIRN_DEBUG_AS(function, ...) TIRN_LOG_AS(::tirn::kDebug, function, __VA_ARGS__)
#define TIRN_ERROR(...) TIRN_ERROR_AS(__func__, __VA_ARGS__)
#define TIRN_WARNING(...) TIRN_WARNING_AS(__func__, __VA_ARGS__)
#define TIRN_INFO(...) TIRN_INFO_AS(__func__, __VA_ARGS__)
#define TIRN_DEBUG(...) TIRN_DEBUG_AS(__func__, __VA_ARGS__)

// Writes a log line at a site that may repeat at a high rate. Tests the info level before anything else, and reports
// the number of suppressed log lines at that level. A log line whose own level is off still counts as printed.
#define TIRN_LIMITED(level, ...) TIRN_LIMITED_AS(__func__, level, __VA_ARGS__)

// Does the same under another function's name.
#define TIRN_LIMITED_AS(function, level, ...) \
  TIRN_LIMITED_WITH(::tirn::kInfo, ::tirn::kInfo, function, level, __VA_ARGS__)

// Does the same with the level `first` that is tested first, and the level `report` of the number of suppressed ones.
#define TIRN_LIMITED_WITH(first, report, function, level, ...)                                  \
  do {                                                                                          \
    static constinit ::tirn::RateGuard tirn_rate_guard;                                         \
    if (tirn_rate_guard.admit((first), (report), {::tirn::kFile.text, (function), __LINE__})) { \
      TIRN_LOG_AS(level, (function), __VA_ARGS__);                                              \
    }                                                                                           \
  } while (0)

#endif
