// Where lines go. Writing takes no lock and allocates nothing, so a signal handler may write at any moment,
// also while another thread, or the very thread that it interrupted, changes or rotates the sink.
#pragma once

#include <cstddef>

namespace tirn::logging {

struct Line;

// Stands before every write: the name that hurn_init was given, or the process's own.
const char* program_name();

// Puts out a closed line. `priority` is a level, for a system log.
void write_line(const Line& line, unsigned priority);

// False, with everything as it was, for a description of another form or a file that cannot be opened.
bool open_sink(const char* name, const char* description);
void reset_sink();

}  // namespace tirn::logging
