// Parses the directives of a scan format.
#include "scan_directive.h"

#include <cstring>

namespace tirn::bounded {
namespace {

// Parses the set after "%[" up to its closing bracket. Returns false if the format ends before that.
bool parse_set(const char*& format, std::bitset<256>& set) {
  const bool inverted = *format == '^';
  if (inverted) {
    format++;
  }
  const char* first = format;
  for (; *format && (*format != ']' || format == first); format++) {
    const auto low = static_cast<unsigned char>(*format);
    set.set(low);
    // A reversed range such as "z-a" stands for its three characters.
    if (format[1] != '-' || !format[2] || static_cast<unsigned char>(format[2]) < low || format[2] == ']') {
      continue;
    }
    format += 2;
    for (unsigned c = low; c <= static_cast<unsigned char>(*format); c++) {
      set.set(c);
    }
  }
  if (!*format) {
    return false;
  }
  format++;
  if (inverted) {
    set.flip();
  }
  return true;
}

}  // namespace

Directive parse_directive(const char*& format) {
  struct Modifier {
    char name[3];
    unsigned bytes;
  };
  static constexpr Modifier kModifiers[] = {{"hh", 1}, {"h", 2}, {"ll", 8}, {"l", 8},
                                            {"z", 8},  {"j", 8}, {"t", 8},  {"L", sizeof(long double)}};
  Directive result;
  if (*format == '*') {
    result.suppressed = true;
    format++;
  }
  size_t width = 0;
  for (; is_digit(*format); format++) {
    width = width < kNoWidth / 16 ? width * 10 + static_cast<size_t>(*format - '0') : kNoWidth / 16;
  }
  if (width) {
    result.width = width;
  }
  for (const Modifier& modifier : kModifiers) {
    const size_t length = strlen(modifier.name);
    if (strncmp(format, modifier.name, length) == 0) {
      result.modified = true;
      result.bytes = modifier.bytes;
      format += length;
      break;
    }
  }
  if (!*format) {
    return result;
  }
  result.conversion = *format++;
  if (result.conversion == '[' && !parse_set(format, result.set)) {
    result.conversion = '\0';
  }
  return result;
}

}  // namespace tirn::bounded
