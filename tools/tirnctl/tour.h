// The tour: each stop shows one task of the library on real input of this machine.
#ifndef TIRNCTL_TOUR_H
#define TIRNCTL_TOUR_H

#include <cstdint>

namespace tirnctl {

// A stop. `show` returns false if the stop failed.
struct Stop {
  const char* title;
  const char* what;
  bool (*show)();
};

bool show_start_up();
bool show_memory();
bool show_clocks();
bool show_timers();
bool show_clock_tree();
bool show_cpus();
bool show_commands();
bool show_configuration();
bool show_partitions();
bool show_checksums();
bool show_threads();
bool show_pool();
bool show_scheduled_work();
bool show_ring();
bool show_locks();
bool show_order();
bool show_private_call();
bool show_service();

int run_tour();

// Prints four blanks and the text. It is passed to the library's functions that take a print function.
int print_indented(const char* format, ...);

// Returns CLOCK_MONOTONIC in nanoseconds.
uint64_t now();

}  // namespace tirnctl

#endif
