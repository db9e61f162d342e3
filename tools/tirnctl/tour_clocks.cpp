// The stops of the tour about the library's clocks beside the system's, and about a clock tree.
#include <time.h>
#include <tirn/clkm.h>
#include <tirn/jiffies.h>

#include <cinttypes>
#include <cstdarg>
#include <cstdio>

#include "tour.h"

namespace tirnctl {
namespace {

struct Clocks {
  static Clocks read() { return {now(), kesa_time_getnanosec(), kesa_get_jiffies(), kesa_rte_get_timer_cycles()}; }
  uint64_t system;
  uint64_t cycle;
  uint64_t jiffies;
  uint64_t ticks;
};

constexpr uint32_t kNameColumns = 18;  // clkm_show_simu prints the name in 16 columns, and ": "
constexpr uint32_t kSteps = 80;        // the tree runs this many, and only they are printed

// Prints what clkm_show_simu passes, indented and without the positions that were not used.
int print_steps(const char* format, ...) {
  static uint32_t column = 0;
  char text[64];
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  if (text[0] == '\n' || column < kNameColumns + kSteps) {
    std::printf("%s%s", column == 0 ? "    " : "", text);
  }
  column = text[0] == '\n' ? 0 : column + static_cast<uint32_t>(length);
  return length;
}

int32_t count_resets(uint64_t, uint32_t code, void* resets) {
  *static_cast<int*>(resets) += code != 0 ? 1 : 0;
  return 0;
}

}  // namespace

bool show_clocks() {
  constexpr timespec kSecond{1, 0};
  kesa_time_getnanosec();  // the first call may calibrate the counter
  const Clocks first = Clocks::read();
  nanosleep(&kSecond, nullptr);
  const Clocks last = Clocks::read();
  const uint64_t system = last.system - first.system;
  const uint64_t cycle = last.cycle - first.cycle;
  const uint64_t jiffies = last.jiffies - first.jiffies;
  const double apart = (static_cast<double>(cycle) - static_cast<double>(system)) / static_cast<double>(system) * 1e6;
  std::printf("    CLOCK_MONOTONIC      %12" PRIu64 " ns\n", system);
  std::printf("    kesa_time_getnanosec %12" PRIu64 " ns   %+.1f parts in a million\n", cycle, apart);
  std::printf("    counter              %12" PRIu64 " ticks, %" PRIu64 " ns each\n", last.ticks - first.ticks,
              kesa_time_cycles2ns(1));
  std::printf("    kesa_get_jiffies     %12" PRIu64 " jiffies, %" PRIu64 " ms\n", jiffies, jiffies * 4);
  std::printf("    the counter's page   %s\n",
              jiffies_uio_get()->jiffies != nullptr ? "is mapped: a jiffy costs one load" : "is missing");
  return jiffies >= 249 && jiffies <= system / KESA_NANOSECONDS_PER_JIFFY + 2;
}

bool show_clock_tree() {
  static const struct {
    uint64_t step;
    char sign;
    int (*change)(clkm_module*);
  } kChanges[] = {{20, 'p', clkm_disable}, {37, 'g', clkm_enable}, {60, 'r', clkm_reset}};
  clkm_module loop, poll, flush, report;
  int resets = 0;
  clkm_init(&loop, count_resets, &resets, "loop");
  clkm_init(&poll, count_resets, &resets, "  poll, 1 in 3");
  clkm_init(&flush, count_resets, &resets, "  flush, 1 in 8");
  clkm_init(&report, count_resets, &resets, "    report, 1/2");
  clkm_reg_child_module(&loop, &poll, 3);
  clkm_reg_child_module(&loop, &flush, 8);
  clkm_reg_child_module(&flush, &report, 2);
  char signs[kSteps + 1];
  for (uint64_t step = 0; step < kSteps; ++step) {
    signs[step] = ' ';
    for (const auto& change : kChanges) {
      if (change.step == step) {
        signs[step] = change.sign;
        change.change(&flush);
      }
    }
    clkm_run_simu(&loop, step);
  }
  signs[kSteps] = '\0';
  clkm_show_simu(&loop, kSteps, print_steps);
  std::printf("    %*s%s\n", static_cast<int>(kNameColumns), "", signs);
  std::printf("    p: the flush is paused, and the report with it; g: it goes on; r: both are reset\n");
  return loop.count == kSteps && poll.count == kSteps / 3 && resets == 2;
}

}  // namespace tirnctl
