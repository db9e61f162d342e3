// Decides which log lines of a noisy site are written.
#include "libtirn/base/rate_guard.h"

#include <cerrno>

#include "libtirn/base/log.h"
#include "tirn/jiffies.h"

namespace tirn {

bool RateGuard::admit(uint32_t first_level, uint32_t report_level, const LogSite& site) {
  constexpr auto relaxed = std::memory_order_relaxed;
  const int error = errno;  // the arguments of the log line may still read it
  if (hurn_level_check(kModule, first_level) != 0) {
    return false;
  }
  const uint64_t now = kesa_get_jiffies();
  errno = error;
  uint32_t printed = printed_.load(relaxed);
  const bool window_over = static_cast<int64_t>(begin_.load(relaxed) + kWindow - now) < 1;
  if (window_over) {
    begin_.store(now, relaxed);
    printed = 0;
    const uint32_t missed = missed_.load(relaxed);
    if (missed != 0 && report_.load(relaxed) + kReportDistance <= now) {
      missed_.store(0, relaxed);
      report_.store(kesa_get_jiffies(), relaxed);
      if (hurn_level_check(kModule, report_level) == 0) {
        TIRN_LOG_WRITE(kModule, report_level, site.file, site.line, site.function,
                       "print: %u messages suppressed.%s,line=%d.", missed, site.function,
                       static_cast<int>(site.line));
      }
    }
  } else if (printed >= kBurst) {
    missed_.store(missed_.load(relaxed) + 1, relaxed);
    return false;
  }
  printed_.store(printed + 1, relaxed);
  begin_.store(now, relaxed);
  return true;
}

}  // namespace tirn
