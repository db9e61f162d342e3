// Starts the shell that runs a command, and waits for its end.
#ifndef TIRN_STR_SHELL_H
#define TIRN_STR_SHELL_H

#include <sys/types.h>

namespace tirn {

// A pipe between this process and a child. The child gets its end as the descriptor `standard`.
struct PipeEnds {
  int ours;
  int childs;
  int standard;
};

// Starts a shell that runs the command. If `ends` is NULL, its standard descriptors are the caller's. Returns the
// child's process id, or -1.
pid_t start_shell(const char* command, const PipeEnds* ends);

// Waits for the end of the child; a signal does not end the wait. Returns the child's status, or -1.
int wait_for_end(pid_t child);

}  // namespace tirn

#endif
