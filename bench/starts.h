// Starts jobs on other threads, ours and the peers', and measures how soon they run.
#ifndef TIRN_BENCH_STARTS_H
#define TIRN_BENCH_STARTS_H

#include <string>
#include <vector>

#include "peers/peers.h"
#include "support/bench.h"

namespace tirn::bench {

inline constexpr unsigned kPause = 300;  // us before each start, so that the workers sleep

// Nanoseconds since before the start.
struct Times {
  uint64_t to_first_instruction;
  uint64_t to_end;
};
using Figure = uint64_t Times::*;
inline constexpr Figure kToFirst = &Times::to_first_instruction;
inline constexpr Figure kToEnd = &Times::to_end;

using TimeOne = Times (*)(void (*start)(peer_job job, void* arg));
Times time_start(void (*start)(peer_job job, void* arg));
Times time_join(void (*)(peer_job job, void* arg));  // starts and joins a thread of its own

// A row that shows one of the two times.
Row row_of_starts(Figure figure, const peer_pool& pool, TimeOne time_one = time_start);

// A row that queues many jobs as fast as possible and shows the time for each until the last has run.
Row row_of_flood(const peer_pool& pool);

// The same rows for those of the named peers that this build has.
std::vector<Row> peers_of_starts(Figure figure, const std::vector<const char*>& names);
std::vector<Row> peers_of_flood(const std::vector<const char*>& names);

inline constexpr char kBareWorker[] = "bare worker asleep on a sem_t";
inline constexpr char kGlibPool[] = "GThreadPool";
inline constexpr char kUvPool[] = "uv_queue_work";
inline constexpr char kTbbArena[] = "tbb::task_arena, enqueue";

// Completes a group of such rows. `prepare` makes our pool, and returns the reason if it cannot.
Group group_of_starts(Group group, std::string (*prepare)());

}  // namespace tirn::bench

#endif
