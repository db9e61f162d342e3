// Formats a log line: prefix, message, cut mark and escape sequences.
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

size_t shown_length(char c) { return !is_control(c) ? 1 : c == '\n' || c == '\r' ? 2 : 4; }

void show(char c, char* shown) {
  constexpr char kDigits[] = "0123456789abcdef";
  if (!is_control(c)) {
    *shown = c;
    return;
  }
  shown[0] = '\\';
  shown[1] = c == '\n' ? 'n' : c == '\r' ? 'r' : 'x';
  if (shown[1] == 'x') {
    shown[2] = kDigits[c >> 4];  // no control character has its top bit set
    shown[3] = kDigits[c & 15];
  }
}

const char* or_unknown(const char* name) { return name != nullptr ? name : "?"; }

}  // namespace

// The names are limited, so that even the longest prefix leaves most of the log line to the message.
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
  if (length < 0) {
    return false;
  }
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
  size_t begin = text;
  while (begin < end && bytes[begin] == '\n') {
    begin++;
  }
  while (end > begin && bytes[end - 1] == '\n') {
    end--;
  }
  memmove(bytes + text, bytes + begin, end - begin);
  end -= begin - text;
  if (std::any_of(bytes + text, bytes + end, is_control)) {
    escape();
  }
  bytes[end++] = '\n';
}

// Replaces each character that could begin another log line or control a terminal by its escape sequence in C. Works
// in place and from the end backwards, because signal handlers have little stack.
void Line::escape() {
  constexpr size_t kMost = HURN_LINE_MAX - 1;  // one byte is for the line feed
  size_t from = text, to = text;               // the end of the characters that fit, and the end of their shown form
  size_t cut_from = text, cut_to = text;       // the same, if the cut mark has to fit after them
  for (; from < end && to <= kMost; to += shown_length(bytes[from++])) {
    if (to + kCutMarkLength <= kMost) {
      cut_from = from;
      cut_to = to;
    }
  }
  const bool is_cut = to > kMost;
  if (is_cut) {
    from = cut_from;
    to = cut_to;
  }
  end = to;
  while (from > text) {
    const char c = bytes[--from];
    to -= shown_length(c);
    show(c, bytes + to);
  }
  if (is_cut) {
    memcpy(bytes + end, kCutMark, kCutMarkLength);
    end += kCutMarkLength;
  }
}

}  // namespace tirn::logging
