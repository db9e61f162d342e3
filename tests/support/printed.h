// Collects what the library prints through a function like printf.
#ifndef TIRN_TEST_PRINTED_H
#define TIRN_TEST_PRINTED_H

#include <cstdarg>
#include <cstdio>
#include <functional>
#include <string>

#include "tirn/base.h"

namespace tirn::test {

inline std::string g_printed;

__attribute__((format(printf, 1, 2))) inline int keep_printed(const char* format, ...) {
  char text[256];
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  g_printed += text;
  return length;
}

// Returns the text that `show` prints through its argument. Only one thread may call this at a time.
inline std::string printed(const std::function<void(kesa_print_fn)>& show) {
  g_printed.clear();
  show(keep_printed);
  return g_printed;
}

}  // namespace tirn::test

#endif
