// Captures the log lines of the test process and of its forked children.
#ifndef TIRN_TEST_LOG_CAPTURE_H
#define TIRN_TEST_LOG_CAPTURE_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "hurn.h"
#include "tirn/base.h"

namespace tirn::test {

struct LogLine {
  uint32_t module;
  uint32_t level;
  pid_t process;
  uint32_t line;
  std::string file;
  std::string function;
  std::string text;
};

// While it lives, every log line goes to it instead of to the sink. The log lines are kept in memory that forked
// children share, without a lock, so those of signal handlers and of children that die are seen too. In a text to
// look for, `*` stands for any characters. Only one capture may live at a time.
class LogCapture {
 public:
  // Sets this level for module 381. The destructor restores the former level.
  explicit LogCapture(uint32_t level = HURN_DEBUG);
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture();

  std::vector<LogLine> lines() const;
  std::vector<std::string> texts() const;
  size_t count(std::string_view text) const;
  size_t count(uint32_t level, std::string_view text) const;
  bool has(uint32_t level, std::string_view function, std::string_view text) const;
  // Forgets the log lines so far.
  void clear();

 private:
  template <typename Condition>
  size_t count_if(Condition condition) const;

  uint32_t former_level_;
  size_t first_ = 0;
};

// Prints each log line on a text line of its own, for the message of a failed expectation.
std::ostream& operator<<(std::ostream& out, const LogCapture& capture);

// Returns whether the whole text matches the pattern, in which `*` stands for any characters.
bool matches(std::string_view text, std::string_view pattern);

}  // namespace tirn::test

#endif
