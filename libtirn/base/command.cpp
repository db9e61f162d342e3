// Formats and runs shell commands.
#include "libtirn/base/command.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "libtirn/base/bounds.h"
#include "libtirn/base/guard.h"
#include "tirn/str.h"

namespace tirn {

bool format_command(char* buffer, uint32_t size, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = vsprintf_s(buffer, size, format, arguments);
  va_end(arguments);
  return length >= 0;
}

std::optional<int> run_command(char* buffer, uint32_t size, const char* allowed, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = vsprintf_s(buffer, size, format, arguments);
  va_end(arguments);
  return length >= 0 ? std::optional(kesa_system_s(buffer, allowed)) : std::nullopt;
}

FirstLine first_line(const char* command, const char* allowed, char* line, int size) {
  memset_s(line, static_cast<size_t>(size), 0, static_cast<size_t>(size));
  const NoCancellation guard;  // a cancelled thread would leave the pipe and the child behind
  const Pipe pipe(kesa_popen_s(command, "r", allowed));
  if (pipe == nullptr) {
    return FirstLine::kNoPipe;
  }
  int length = 0;
  while (length < size - 1 && (length == 0 || line[length - 1] != '\n')) {
    const int byte = std::getc(pipe.get());
    if (byte != EOF) {
      line[length++] = static_cast<char>(byte);
    } else if (std::ferror(pipe.get()) != 0 && errno == EINTR) {
      std::clearerr(pipe.get());  // fgets would lose the bytes read so far
    } else {
      break;
    }
  }
  return length != 0 ? FirstLine::kRead : FirstLine::kEmpty;
}

}  // namespace tirn
