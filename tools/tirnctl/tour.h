// The tour: each stop shows one of the library's jobs on real input of this machine.
#ifndef TIRNCTL_TOUR_H
#define TIRNCTL_TOUR_H

#include <cstdint>

namespace tirnctl {

// A stop; false where it could not be shown.
struct Stop {
  const char* title;
  const char* what;
  bool (*show)();
};

bool show_start_up();
bool show_memory();
bool show_clocks();
bool show_cpus();
bool show_commands();
bool show_configuration();
bool show_partitions();
bool show_checksums();
bool show_threads();
bool show_pool();
bool show_ring();
bool show_locks();
bool show_order();
bool show_private_call();
bool show_service();

int run_tour();

// For the library's functions that print: behind four blanks.
int print_indented(const char* format, ...);

// Nanoseconds of CLOCK_MONOTONIC.
uint64_t now();

}  // namespace tirnctl

#endif
