// The tour: the table of its stops, and the loop that shows them.
#include "tour.h"

#include <hurn.h>
#include <time.h>
#include <tirn/init.h>

#include <cstdarg>
#include <cstdio>

namespace tirnctl {
namespace {

constexpr Stop kStops[] = {
    {"Start-up", "The steps of kesa_Init, one by one in a child process, then all of them in this one.",
     show_start_up},
    {"Memory", "Blocks carry the id of the module that owns them, and the bytes of each module are counted.",
     show_memory},
    {"Clocks", "Jiffies (4 ms) and the cycle clock beside the system's clocks, over a second.", show_clocks},
    {"Timers", "How late they fire, and what a thread costs that waits for them.", show_timers},
    {"Processors", "The kernel's CPU lists as masks.", show_cpus},
    {"A private call", "From the caller through the command word to the kernel side, and back with the result.",
     show_private_call},
    {"The loopback service", "A command registered in one process, called from another.", show_service},
    {"Commands", "Behind the screen that refuses what a shell would take apart.", show_commands},
    {"Configuration", "This machine's own files as sections and items, and the search order of two files.",
     show_configuration},
    {"CPU partitions", "The machine's CPUs divided among services, and a list that names the parts.",
     show_partitions},
    {"Checksums", "How fast blocks are checked, beside how fast they can be read at all.", show_checksums},
    {"Threads", "Strategies (a nice value and CPUs), and the table of threads with what each has taken.",
     show_threads},
    {"The pool", "Short jobs, on a new thread each and on workers that wait for them.", show_pool},
    {"Scheduled work", "A pool that grows and shrinks with its queue, and reports work that hangs.",
     show_scheduled_work},
    {"A ring", "Values from one thread to another without a lock, each seen to come once and in order.", show_ring},
    {"Locks", "What those who use them wrongly, or for long, find in the log.", show_locks},
    {"Order of arrival", "Eight threads wait for a semaphore, one after the other, and are let go one by one.",
     show_order},
    {"A clock tree", "Jobs of several rates from one loop: which of them ran in which of its steps.",
     show_clock_tree},
};

// Prints a log line of the library, marked so that it differs from the output of the tour.
void show_line(const hurn_line* line) {
  std::printf("    log | %s: %s\n", line->function != nullptr ? line->function : "-", line->text);
  std::fflush(stdout);
}

}  // namespace

int print_indented(const char* format, ...) {
  std::printf("    ");
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vprintf(format, arguments);
  va_end(arguments);
  return length;
}

uint64_t now() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<uint64_t>(time.tv_sec) * 1000000000 + static_cast<uint64_t>(time.tv_nsec);
}

int run_tour() {
  const hurn_content_record record{HURN_CALLBACK_ONLY, show_line};
  kesa_log_register_callback(&record);
  int failed = 0;
  int number = 0;
  for (const Stop& stop : kStops) {
    std::printf("%s%d. %s\n   %s\n\n", number == 0 ? "" : "\n", number + 1, stop.title, stop.what);
    std::fflush(stdout);
    ++number;
    if (!stop.show()) {
      std::printf("    this stop failed\n");
      ++failed;
    }
    std::fflush(stdout);
  }
  kesa_log_register_callback(nullptr);
  std::printf("\n%d stops, %d failed\n", number, failed);
  return failed == 0 ? 0 : 1;
}

}  // namespace tirnctl
