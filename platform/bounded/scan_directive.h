// The directives of a scan format.
#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>

namespace tirn::bounded {

inline constexpr size_t kNoWidth = SIZE_MAX;

constexpr bool is_space(int c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
constexpr bool is_digit(int c) { return c >= '0' && c <= '9'; }

struct Directive {
  char conversion = '\0';
  bool suppressed = false;
  bool modified = false;
  unsigned bytes = 4;  // size of the argument, if it is a number
  size_t width = kNoWidth;
  std::bitset<256> set;  // the characters that a token may contain
};

// Parses the directive that follows a percent sign and moves `format` past it. The result's conversion is 0 if the
// format ends within the directive.
Directive parse_directive(const char*& format);

}  // namespace tirn::bounded
