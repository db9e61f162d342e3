// Measures first start-ups. A process has only one, so the program runs itself again for each.
#ifndef TIRN_BENCH_COLD_START_H
#define TIRN_BENCH_COLD_START_H

namespace tirn::bench {

// The argument with which the program only runs report_cold_start().
inline constexpr char kColdStart[] = "--cold-start";

// Times kesa_Init and writes a Sample to standard output. Returns the program's exit status.
int report_cold_start();

}  // namespace tirn::bench

#endif
