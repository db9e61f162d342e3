// Measures cold start-ups. A process can start cold only once, so the program runs itself again for each measurement.
#ifndef TIRN_BENCH_COLD_START_H
#define TIRN_BENCH_COLD_START_H

namespace tirn::bench {

// The argument with which the program only runs report_cold_start().
inline constexpr char kColdStart[] = "--cold-start";

// Times kesa_Init and writes a Sample to standard output. Returns the program's exit status.
int report_cold_start();

}  // namespace tirn::bench

#endif
