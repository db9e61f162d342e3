// Running shell commands: the line that a family formats from its template, its status, and the first line that comes
// back. `allowed`: the special characters that the template itself needs; with any other of them in the line it is
// refused. What failed is told to the caller, who logs it under its own name and in its own words.
#ifndef TIRN_BASE_COMMAND_H
#define TIRN_BASE_COMMAND_H

#include <cstdint>
#include <optional>

namespace tirn {

// Formats a command line into `buffer`; false, with the buffer emptied, where it does not fit.
bool format_command(char* buffer, uint32_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));

// Formats a command line and runs it: the result of kesa_system_s. Nothing where the line does not fit; the buffer is
// empty then.
std::optional<int> run_command(char* buffer, uint32_t size, const char* allowed, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

enum class FirstLine { kRead, kEmpty, kNoPipe };

// Runs `command` and reads the first line of its output, at most size - 1 bytes with its line feed, into `line`, which
// is zeroed first. A refused command shows as kNoPipe. The thread is not cancelled meanwhile.
FirstLine first_line(const char* command, const char* allowed, char* line, int size);

}  // namespace tirn

#endif
