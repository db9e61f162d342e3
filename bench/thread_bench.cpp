// Measures starting threads and jobs, finding threads, and asking for the current CPU.
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "peers/peers.h"
#include "support/bench.h"
#include "support/data.h"
#include "support/machine.h"
#include "tirn/thread.h"

namespace tirn::bench {
namespace {

constexpr uint64_t kStarts = 15;  // in a repetition, which counts with their median
constexpr unsigned kPause = 300;  // us before each start, so that the workers sleep
constexpr unsigned kPoolWorkers = 4;

// What the job reports to the thread that started it, which sleeps until then.
struct Report {
  uint64_t began;
  sem_t done;
};
Report report;

void* tell(void*) {
  report.began = now();
  sem_post(&report.done);
  return nullptr;
}

// Nanoseconds since before the start.
struct Times {
  uint64_t to_first_instruction;
  uint64_t to_end;
};

Times time_start(void (*start)(peer_job job, void* arg)) {
  const uint64_t before = now();
  start(tell, nullptr);
  while (sem_wait(&report.done) != 0) {
  }
  return {report.began - before, now() - before};
}

Times time_join(void (*)(peer_job job, void* arg)) {
  const uint64_t before = now();
  pthread_t thread;
  pthread_create(&thread, nullptr, tell, nullptr);
  pthread_join(thread, nullptr);
  const uint64_t end = now();
  sem_wait(&report.done);
  return {report.began - before, end - before};
}

void spin_for(unsigned microseconds) {
  const uint64_t end = now() + uint64_t{microseconds} * 1000;
  while (now() < end) {
  }
}

using Figure = uint64_t Times::*;
using TimeOne = Times (*)(void (*start)(peer_job job, void* arg));

// Measures starts. The starter may sleep, but a preemption of it spoils the repetition.
Measure starts(Figure figure, const peer_pool& pool, TimeOne time_one) {
  return [figure, pool, time_one](uint64_t count) {
    const Placement before = placement_now();
    std::vector<uint64_t> times(count);
    Sample sample = timed([&] {
      for (uint64_t& time : times) {
        spin_for(pool.pause);
        time = time_one(pool.start).*figure;
        if (pool.settle != nullptr) {
          pool.settle();
        }
      }
    });
    std::nth_element(times.begin(), times.begin() + count / 2, times.end());
    sample.nanoseconds = static_cast<double>(times[count / 2] * count);
    sample.placement = placement_now();
    sample.disturbed |= sample.placement != before;
    return sample;
  };
}

void start_in_pool(peer_job job, void* arg) { kesa_thrd_create(job, arg, nullptr); }
void start_alone(peer_job job, void* arg) { create_thread_raw(job, arg, nullptr); }
constexpr peer_pool kPool{"kesa_thrd_create, from the pool", start_in_pool, nullptr, kPause};
constexpr peer_pool kPlain{"create_thread_raw", start_alone, nullptr, kPause};
constexpr peer_pool kJoined{"pthread_create, pthread_join", nullptr, nullptr, kPause};

Row row(Figure figure, const peer_pool& pool, TimeOne time_one = time_start) {
  return {pool.name, starts(figure, pool, time_one), kStarts};
}

std::vector<Row> peers(Figure figure, const std::vector<const char*>& names) {
  std::vector<Row> rows;
  for (const char* const name : names) {
    if (const peer_pool* const pool = peer_pool_named(name); pool != nullptr) {
      rows.push_back(row(figure, *pool));
    }
  }
  return rows;
}
constexpr Figure kToFirst = &Times::to_first_instruction;
constexpr Figure kToEnd = &Times::to_end;
constexpr char kBareWorker[] = "bare worker asleep on a sem_t";
constexpr char kDetached[] = "pthread_create, detached";
const std::vector<const char*> kQueues{kBareWorker, "GThreadPool", "uv_queue_work", "tbb::task_arena, enqueue"};

std::optional<AwakeCores> awake;

std::string set_up_starts() {
  awake.emplace();
  sem_init(&report.done, 0, 0);
  return kesa_thread_pool_create(kPoolWorkers) != 0 ? "" : "the pool cannot be made";
}

void clear_starts() { awake.reset(); }

Group group_of_starts(const char* name, double target, Row ours, std::vector<Row> peers, std::vector<Row> shown) {
  return {.name = name,
          .target = target,
          .unit = kMicroseconds,
          .cores = 2,
          .set_up = set_up_starts,
          .tear_down = clear_starts,
          .ours = std::move(ours),
          .peers = std::move(peers),
          .shown = std::move(shown)};
}

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

const Family threads{[] {
  return std::vector<Group>{
      group_of_starts("threads/pool_to_first_instruction", 1.2, row(kToFirst, kPool), peers(kToFirst, kQueues), {}),
      group_of_starts("threads/pool_against_create", 0.45, row(kToFirst, kPool), peers(kToFirst, {kDetached}), {}),
      group_of_starts("threads/pool_to_end", 0, row(kToEnd, kPool), peers(kToEnd, kQueues),
                      {row(kToEnd, kJoined, time_join)}),
      group_of_starts("threads/plain_to_first_instruction", 0, row(kToFirst, kPlain), peers(kToFirst, {kDetached}),
                      {}),
      group_of_starts("threads/plain_to_end", 1.3, row(kToEnd, kPlain), {row(kToEnd, kJoined, time_join)},
                      peers(kToEnd, {kDetached})),
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
