// Files that the kernel generates, read without a stream.
#include <fcntl.h>
#include <unistd.h>

#include <charconv>

#include "commands.h"

namespace zut {

size_t read_text(const char* path, char* text, size_t size) {
  const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    return 0;
  }
  const ssize_t length = read(descriptor, text, size - 1);
  close(descriptor);
  text[length > 0 ? length : 0] = '\0';
  return length > 0 ? static_cast<size_t>(length) : 0;
}

uint32_t last_number(const char* begin, const char* end) {
  const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
  while (end > begin && !is_digit(end[-1])) {
    --end;
  }
  const char* digits = end;
  while (digits > begin && is_digit(digits[-1])) {
    --digits;
  }
  uint32_t number = 0;
  std::from_chars(digits, end, number);
  return number;
}

}  // namespace zut
