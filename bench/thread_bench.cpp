// Measures starting threads and jobs, finding threads, and asking for the current CPU.
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "starts.h"
#include "support/bench.h"
#include "support/data.h"
#include "support/machine.h"
#include "tirn/thread.h"

namespace tirn::bench {
namespace {

void start_in_pool(peer_job job, void* arg) { kesa_thrd_create(job, arg, nullptr); }
void start_alone(peer_job job, void* arg) { create_thread_raw(job, arg, nullptr); }
constexpr peer_pool kPool{"kesa_thrd_create, from the pool", start_in_pool, nullptr, kPause, nullptr};
constexpr peer_pool kPlain{"create_thread_raw", start_alone, nullptr, kPause, nullptr};
constexpr peer_pool kJoined{"pthread_create, pthread_join", nullptr, nullptr, kPause, nullptr};

constexpr char kDetached[] = "pthread_create, detached";
const std::vector<const char*> kQueues{kBareWorker, kGlibPool, kUvPool, kTbbArena};
constexpr unsigned kPoolWorkers = 4;

std::string make_pool() { return kesa_thread_pool_create(kPoolWorkers) != 0 ? "" : "the pool cannot be made"; }

// The kernel ids of the threads to look up, which sleep until the process ends.
std::vector<uint32_t> sleepers;
std::atomic<size_t> arrived{0};

void* sleep_for_good(void*) {
  sleepers[arrived.fetch_add(1)] = kesa_thread_get_knl_tid();
  for (;;) {
    pause();
  }
}

template <size_t kCount>
std::string start_sleepers() {
  sleepers.resize(kCount);
  pthread_attr_t small;
  pthread_attr_init(&small);
  pthread_attr_setstacksize(&small, KESA_THREAD_SMALL_STACK);
  for (size_t i = 0; i < kCount; ++i) {
    if (kesa_thrd_create_attr(sleep_for_good, nullptr, nullptr, &small) != 0) {
      return "so many threads cannot be started here";
    }
  }
  while (arrived.load() != kCount) {
    sched_yield();
  }
  shuffle(sleepers);
  return "";
}

uint32_t next_tid() {
  static size_t at = 0;
  at = at + 1 < sleepers.size() ? at + 1 : 0;
  return sleepers[at];
}

// The table that a program would write for itself.
struct Register {
  std::shared_mutex mutex;
  std::unordered_map<uint32_t, std::shared_ptr<uint32_t>> threads;

  std::shared_ptr<uint32_t> find(uint32_t tid) {
    const std::shared_lock lock(mutex);
    const auto found = threads.find(tid);
    return found != threads.end() ? found->second : nullptr;
  }
};

Register& filled_register() {
  static Register* const made = [] {
    auto* const filled = new Register;
    for (const uint32_t tid : sleepers) {
      filled->threads[tid] = std::make_shared<uint32_t>(tid);
    }
    return filled;
  }();
  return *made;
}

template <size_t kCount>
Group lookup() {
  return {.name = "threads/lookup_by_tid/" + std::to_string(kCount),
          .set_up = start_sleepers<kCount>,
          .ours = {"kesa_thrd_getthreadinfobytid, kesa_thrd_putthreadinfo",
                   one_thread([] { kesa_thrd_putthreadinfo(kesa_thrd_getthreadinfobytid(next_tid())); })},
          .shown = {{"std::unordered_map, shared_mutex, shared_ptr",
                     one_thread([] { benchmark::DoNotOptimize(filled_register().find(next_tid())); })}}};
}

std::string bind_here() {
  pin_to(cores()[0]);
  kesa_thrd_core_set(cores()[0]);
  return "";
}

Group group(const char* name, double target, Row ours, std::vector<Row> peers, std::vector<Row> shown = {}) {
  return group_of_starts({.name = name,
                          .target = target,
                          .unit = kMicroseconds,
                          .ours = std::move(ours),
                          .peers = std::move(peers),
                          .shown = std::move(shown)},
                         make_pool);
}

const Family threads{[] {
  return std::vector<Group>{
      group("threads/pool_to_first_instruction", 1.2, row_of_starts(kToFirst, kPool),
            peers_of_starts(kToFirst, kQueues)),
      group("threads/pool_against_create", 0.45, row_of_starts(kToFirst, kPool),
            peers_of_starts(kToFirst, {kDetached})),
      group("threads/pool_to_end", 0, row_of_starts(kToEnd, kPool), peers_of_starts(kToEnd, kQueues),
            {row_of_starts(kToEnd, kJoined, time_join)}),
      group("threads/plain_to_first_instruction", 0, row_of_starts(kToFirst, kPlain),
            peers_of_starts(kToFirst, {kDetached})),
      group("threads/plain_to_end", 1.3, row_of_starts(kToEnd, kPlain), {row_of_starts(kToEnd, kJoined, time_join)},
            peers_of_starts(kToEnd, {kDetached})),
      lookup<10>(),
      lookup<500>(),
      lookup<2000>(),
      {.name = "threads/smp_processor_id",
       .target = 1.0,
       .set_up = bind_here,
       .ours = {"smp_processor_id, bound", one_thread([] { benchmark::DoNotOptimize(smp_processor_id()); })},
       .peers = {{"sched_getcpu", one_thread([] { benchmark::DoNotOptimize(sched_getcpu()); })}}},
  };
}};

}  // namespace
}  // namespace tirn::bench
