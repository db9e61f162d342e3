// Running shell commands: the line that a family formats from its template, and the first line that comes back.
#ifndef TIRN_BASE_COMMAND_H
#define TIRN_BASE_COMMAND_H

#include <cstdint>

namespace tirn {

enum class FirstLine { kRead, kEmpty, kNoPipe };

// Runs `command` in a shell and reads the first line of its output, at most size - 1 bytes with its line feed, into
// `line`, which is zeroed first. `allowed`: the special characters that the command itself needs; with any other of
// them the command is not run, which shows as kNoPipe.
FirstLine first_line(const char* command, const char* allowed, char* line, int size);

// Formats a command line into `buffer`; false, with the buffer emptied, where it does not fit. The caller logs its own
// message.
bool format_command(char* buffer, uint32_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));

}  // namespace tirn

#endif
