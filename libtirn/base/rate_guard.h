// Limits a noisy site to a few log lines in a row.
#ifndef TIRN_BASE_RATE_GUARD_H
#define TIRN_BASE_RATE_GUARD_H

#include <atomic>
#include <cstdint>

namespace tirn {

struct LogSite {
  const char* file;
  const char* function;
  uint32_t line;
};

// The state of one site. Its words are relaxed: it is accepted that threads lose each other's counts.
class RateGuard {
 public:
  // Returns whether the site's next log line may be written. Also logs the suppressed count when that is due.
  bool admit(uint32_t first_level, uint32_t report_level, const LogSite& site);

  static constexpr uint32_t kBurst = 3;
  static constexpr uint64_t kWindow = 15000;           // jiffies since the last written log line
  static constexpr uint64_t kReportDistance = 150000;  // jiffies between two reports

 private:
  std::atomic<uint64_t> begin_{0};    // when the last log line was written
  std::atomic<uint32_t> printed_{0};  // log lines since the window began
  std::atomic<uint32_t> missed_{0};   // log lines suppressed since the last report
  std::atomic<uint64_t> report_{0};   // when the last report was written
};

}  // namespace tirn

#endif
