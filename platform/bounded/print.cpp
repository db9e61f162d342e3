// Bounds-checked formatting of text.
#include <cstdarg>
#include <cstdio>

#include "bounded.h"
#include "region.h"

namespace {

using tirn::bounded::check_destination;

// Writes up to `most` characters of the text and returns the length of the whole text. Returns -1 if the text cannot
// be formatted; the destination is then empty.
__attribute__((format(printf, 4, 0))) int print(char* destination, size_t size, size_t most, const char* format,
                                                va_list arguments) {
  if (check_destination(destination, size)) {
    return -1;
  }
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the analyzer does not follow the list through the calls
  const int length = format != nullptr ? vsnprintf(destination, most + 1, format, arguments) : -1;
  if (length < 0) {
    destination[0] = '\0';
  }
  return length;
}

}  // namespace

int vsprintf_s(char* destination, size_t size, const char* format, va_list arguments) {
  const int length = print(destination, size, size - 1, format, arguments);
  if (length < 0 || static_cast<size_t>(length) < size) {
    return length;
  }
  destination[0] = '\0';
  return -1;
}

int vsnprintf_s(char* destination, size_t size, size_t count, const char* format, va_list arguments) {
  const size_t most = count < size ? count : size - 1;
  const int length = print(destination, size, most, format, arguments);
  return length < 0 || static_cast<size_t>(length) > most ? -1 : length;
}

int sprintf_s(char* destination, size_t size, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = vsprintf_s(destination, size, format, arguments);
  va_end(arguments);
  return length;
}

int snprintf_s(char* destination, size_t size, size_t count, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf_s(destination, size, count, format, arguments);
  va_end(arguments);
  return length;
}
