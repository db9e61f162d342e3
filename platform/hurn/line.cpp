#include "line.h"

#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace tirn::logging {
namespace {

constexpr char kCutMark[] = "...[cut]";
constexpr size_t kCutMarkLength = sizeof(kCutMark) - 1;

bool is_control(char c) { return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7f; }

const char* or_unknown(const char* name) { return name ? name : "?"; }

}  // namespace

// The names are limited so that the longest prefix leaves most of the line to the message.
void Line::put_prefix(const char* program, const Source& source) {
  namespace chrono = std::chrono;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const chrono::sys_seconds stamp{chrono::seconds{now.tv_sec}};
  const auto day = chrono::floor<chrono::days>(stamp);
  const chrono::year_month_day date{day};
  const chrono::hh_mm_ss clock{stamp - day};

  body = static_cast<size_t>(
      snprintf(bytes, sizeof bytes, "%04d-%02u-%02uT%02d:%02d:%02d.%06ldZ %.64s[%d/%d] ",
               static_cast<int>(date.year()), static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
               static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
               static_cast<int>(clock.seconds().count()), now.tv_nsec / 1000, program, getpid(), gettid()));
  text = body + static_cast<size_t>(snprintf(bytes + body, sizeof bytes - body,
                                             "%s %u %.128s:%u %.128s: ", kLevelNames[source.level], source.module,
                                             or_unknown(source.file), source.line, or_unknown(source.function)));
  end = text;
}

bool Line::put_text(const char* format, va_list arguments) {
  const size_t room = HURN_LINE_MAX - text;
  const int length = vsnprintf(bytes + text, room + 1, format, arguments);
  if (length < 0)
    return false;
  const auto wanted = static_cast<size_t>(length);
  if (wanted < room || (wanted == room && bytes[HURN_LINE_MAX - 1] == '\n')) {
    end = text + wanted;
    return true;
  }
  end = HURN_LINE_MAX - 1;
  memcpy(bytes + end - kCutMarkLength, kCutMark, kCutMarkLength + 1);
  return true;
}

void Line::close() {
  if (end == text || bytes[end - 1] != '\n')
    bytes[end++] = '\n';
  if (std::any_of(bytes + text, bytes + end - 1, is_control))
    escape();
}

// Each character that could begin another line or steer a terminal is shown as C writes it.
[[gnu::noinline]] void Line::escape() {
  char plain[HURN_LINE_MAX];
  const size_t length = end - 1 - text;
  memcpy(plain, bytes + text, length);
  size_t at = text;
  for (size_t i = 0; i < length; i++) {
    char shown[8] = {plain[i]};
    if (is_control(plain[i]))
      snprintf(shown, sizeof shown,
               plain[i] == '\n'   ? "\\n"
               : plain[i] == '\r' ? "\\r"
                                  : "\\x%02x",
               static_cast<unsigned char>(plain[i]));
    const size_t size = strlen(shown);
    if (at + size > HURN_LINE_MAX - 1 - (i + 1 < length ? kCutMarkLength : 0)) {
      memcpy(bytes + at, kCutMark, kCutMarkLength);
      at += kCutMarkLength;
      break;
    }
    memcpy(bytes + at, shown, size);
    at += size;
  }
  bytes[at] = '\n';
  end = at + 1;
}

}  // namespace tirn::logging
