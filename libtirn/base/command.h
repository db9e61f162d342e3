// Formats shell commands from templates, runs them, and reads their status or the first text line of their output.
//
// `allowed` names the special characters that the template itself needs; a command with any other special character
// is refused. The functions report a failure to the caller, which logs it under its own name and with its own text.
#ifndef TIRN_BASE_COMMAND_H
#define TIRN_BASE_COMMAND_H

#include <cstdint>
#include <optional>

namespace tirn {

// Formats a command into `buffer`. Returns false, with the buffer emptied, if the command does not fit.
bool format_command(char* buffer, uint32_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));

// Formats a command and runs it. Returns the result of kesa_system_s, or nothing, with the buffer emptied, if the
// command does not fit.
std::optional<int> run_command(char* buffer, uint32_t size, const char* allowed, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

enum class FirstLine { kRead, kEmpty, kNoPipe };

// Runs `command` and reads the first text line of its output, at most size - 1 bytes with the line feed, into `line`,
// which is zeroed first. A refused command gives kNoPipe. Cancellation is held off meanwhile.
FirstLine first_line(const char* command, const char* allowed, char* line, int size);

}  // namespace tirn

#endif
