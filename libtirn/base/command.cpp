#include "libtirn/base/command.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "libtirn/base/bounds.h"

namespace tirn {
namespace {

constexpr char kSpecial[] = "|;&$<>!\n`";

bool is_refused(const char* command, const char* allowed) {
  for (const char* at = std::strpbrk(command, kSpecial); at != nullptr; at = std::strpbrk(at + 1, kSpecial)) {
    if (std::strchr(allowed, *at) == nullptr) {
      return true;
    }
  }
  return false;
}

}  // namespace

FirstLine first_line(const char* command, const char* allowed, char* line, int size) {
  memset_s(line, static_cast<size_t>(size), 0, static_cast<size_t>(size));
  if (is_refused(command, allowed)) {
    return FirstLine::kNoPipe;
  }
  FILE* const pipe = popen(command, "re");
  if (pipe == nullptr) {
    return FirstLine::kNoPipe;
  }
  const bool got = std::fgets(line, size, pipe) != nullptr;
  pclose(pipe);
  return got ? FirstLine::kRead : FirstLine::kEmpty;
}

bool format_command(char* buffer, uint32_t size, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = vsprintf_s(buffer, size, format, arguments);
  va_end(arguments);
  return length >= 0;
}

}  // namespace tirn
