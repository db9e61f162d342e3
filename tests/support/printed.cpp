#include "printed.h"

#include <cstdarg>
#include <cstdio>

namespace tirn::test {
namespace {

std::string g_text;

__attribute__((format(printf, 1, 2))) int keep(const char* format, ...) {
  char text[256];
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  g_text += text;
  return length;
}

}  // namespace

std::string printed(const std::function<void(kesa_print_fn)>& show) {
  g_text.clear();
  show(keep);
  return g_text;
}

}  // namespace tirn::test
