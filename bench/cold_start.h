// A first start-up can be measured once in a process: the program runs itself anew for each.
#ifndef TIRN_BENCH_COLD_START_H
#define TIRN_BENCH_COLD_START_H

namespace tirn::bench {

// The argument that turns a run of the program into report_cold_start().
inline constexpr char kColdStart[] = "--cold-start";

// Times kesa_Init and writes a Sample to standard output. The program's exit status.
int report_cold_start();

}  // namespace tirn::bench

#endif
