// The child that runs a command.
#ifndef TIRN_STR_SHELL_H
#define TIRN_STR_SHELL_H

#include <sys/types.h>

namespace tirn {

// A pipe between this process and a child, which knows its end as `standard`.
struct PipeEnds {
  int ours;
  int childs;
  int standard;
};

// Runs the command in a shell; with `ends` NULL its standard descriptors are the caller's. The child's id, or -1.
pid_t start_shell(const char* command, const PipeEnds* ends);

// The child's status when it has ended, or -1. Interruptions by signals are waited through.
int wait_for_end(pid_t child);

}  // namespace tirn

#endif
