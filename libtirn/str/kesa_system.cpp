// Implements the functions of tirn/str.h that run a command without a pipe, or replace the process by it.
#include <unistd.h>

#include <cstdlib>

#include "libtirn/base/cancellation.h"
#include "libtirn/base/log.h"
#include "libtirn/str/shell.h"
#include "tirn/str.h"

using namespace tirn;

int kesa_system(const char* cmd) {
  if (cmd == nullptr) {
    return KESA_COMMAND_MISSING;
  }
  const NoCancellation guard;  // a cancellation would leave the child unreaped
  const pid_t child = start_shell(cmd, nullptr);
  return child < 0 ? -1 : wait_for_end(child);
}

int kesa_cmd_exec(const char* cmd) { return kesa_system(cmd); }

int kesa_system_s(const char* cmd, const char* white) {
  return isDangerousCmd(cmd, white) != 0 ? KESA_COMMAND_REFUSED : kesa_system(cmd);
}

int system_s(const char* cmd, const char* white) {
  if (cmd == nullptr) {
    return KESA_COMMAND_MISSING;
  }
  const NoCancellation guard;  // a cancellation would kill the shell, but not what the shell has started
  return isDangerousCmd(cmd, white) != 0 ? KESA_COMMAND_REFUSED : std::system(cmd);
}

int execv_s(const char* path, int argc, char** argv, const char* white, kesa_execv_checker checker) {
  if (path == nullptr || argv == nullptr) {
    return KESA_COMMAND_MISSING;
  }
  for (int i = 0; i < argc; ++i) {
    if (isDangerousCmd(argv[i], white) != 0) {
      return TIRN_ERROR("execv cmd is dangerous, argv[%d] is: %s.", i, argv[i]), KESA_COMMAND_REFUSED;
    }
  }
  if (checker != nullptr && !checker(path, argc, argv)) {
    return KESA_COMMAND_REFUSED;
  }
  return execv(path, argv);
}

int __wrap_system(const char* cmd) { return kesa_system(cmd); }
