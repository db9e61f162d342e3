// The destination of log lines. Writing takes no lock and allocates nothing, so a signal handler may write at any
// moment, even while another thread, or the thread that it interrupted, changes or rotates the sink.
#pragma once

#include <cstddef>

namespace tirn::logging {

struct Line;

// Returns the program's name for log lines: the one that hurn_init was given, or the process's own short name.
const char* program_name();

// Writes a closed log line. `priority` is the level that a system log gets.
void write_line(const Line& line, unsigned priority);

// Sets the program's name and the sink. Returns false, with both as they were, if the description has another form,
// the file cannot be opened or there is no memory.
bool open_sink(const char* name, const char* description);
// Restores the default sink and the process's own name.
void reset_sink();

}  // namespace tirn::logging
