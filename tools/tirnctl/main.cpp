// tirnctl: runs the command that its argument names.
#include <cstdio>
#include <cstring>

#include "tour.h"

namespace {

struct Command {
  const char* name;
  const char* what;
  int (*run)();
};

constexpr Command kCommands[] = {
    {"tour", "shows the library's main jobs on real input of this machine", tirnctl::run_tour},
};

int usage() {
  std::fprintf(stderr, "usage: tirnctl COMMAND\n");
  for (const Command& command : kCommands) {
    std::fprintf(stderr, "  %-8s %s\n", command.name, command.what);
  }
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2) {
    for (const Command& command : kCommands) {
      if (std::strcmp(command.name, argv[1]) == 0) {
        return command.run();
      }
    }
  }
  return usage();
}
