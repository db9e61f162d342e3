// Bounds-checked copying, appending and splitting of text.
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "bounded.h"
#include "region.h"

namespace {

using tirn::bounded::check_destination;
using tirn::bounded::overlap;

// Appends up to `count` characters of `source` to the `length` characters in the destination. Returns 0; on failure,
// empties the destination and returns the error.
int place(char* destination, size_t size, size_t length, const char* source, size_t count) {
  const size_t room = size - length;
  int error = EINVAL;
  if (source != nullptr) {
    const size_t most = count < room ? count : room;
    const size_t copied = strnlen(source, most);
    const size_t read = copied < most ? copied + 1 : copied;
    char* end = destination + length;
    if (copied == room) {
      error = ERANGE;
    } else if (source == destination ? length == 0 : !overlap(destination, length + copied + 1, source, read)) {
      memmove(end, source, copied);
      end[copied] = '\0';
      return 0;
    }
  }
  destination[0] = '\0';
  return error;
}

int append(char* destination, size_t size, const char* source, size_t count) {
  if (const int error = check_destination(destination, size)) {
    return error;
  }
  const size_t length = strnlen(destination, size);
  if (length < size) {
    return place(destination, size, length, source, count);
  }
  destination[0] = '\0';
  return ERANGE;
}

}  // namespace

int strcpy_s(char* destination, size_t size, const char* source) {
  return strncpy_s(destination, size, source, SIZE_MAX);
}

int strncpy_s(char* destination, size_t size, const char* source, size_t count) {
  if (const int error = check_destination(destination, size)) {
    return error;
  }
  return place(destination, size, 0, source, count);
}

int strcat_s(char* destination, size_t size, const char* source) {
  return append(destination, size, source, SIZE_MAX);
}

int strncat_s(char* destination, size_t size, const char* source, size_t count) {
  return append(destination, size, source, count);
}

char* strtok_s(char* text, const char* delimiters, char** position) {
  if (delimiters == nullptr || position == nullptr || (text == nullptr && *position == nullptr)) {
    return nullptr;
  }
  return strtok_r(text, delimiters, position);
}
