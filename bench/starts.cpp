#include "starts.h"

#include <pthread.h>
#include <semaphore.h>

#include <algorithm>
#include <atomic>
#include <optional>

#include "support/machine.h"

namespace tirn::bench {
namespace {

constexpr uint64_t kStarts = 15;    // in a repetition, which counts with their median
constexpr uint64_t kFlood = 50000;  // jobs in a repetition

// What the job reports to the thread that started it, which sleeps until then.
struct Report {
  uint64_t began;
  sem_t done;
};
Report report;
std::atomic<uint64_t> jobs_left;

void* tell(void*) {
  report.began = now();
  sem_post(&report.done);
  return nullptr;
}

void* count_down(void*) {
  if (jobs_left.fetch_sub(1, std::memory_order_relaxed) == 1) {
    sem_post(&report.done);
  }
  return nullptr;
}

void wait_for_report() {
  while (sem_wait(&report.done) != 0) {
  }
}

void settle(const peer_pool& pool) {
  if (pool.settle != nullptr) {
    pool.settle();
  }
}

void spin_for(unsigned microseconds) {
  const uint64_t end = now() + uint64_t{microseconds} * 1000;
  while (now() < end) {
  }
}

// Measures starts. The starter may sleep, but a preemption of it spoils the repetition.
Measure starts(Figure figure, const peer_pool& pool, TimeOne time_one) {
  return [figure, pool, time_one](uint64_t count) {
    const Placement before = placement_now();
    std::vector<uint64_t> times(count);
    Sample sample = timed([&] {
      for (uint64_t& time : times) {
        spin_for(pool.pause);
        time = time_one(pool.start).*figure;
        settle(pool);
      }
    });
    std::nth_element(times.begin(), times.begin() + count / 2, times.end());
    sample.nanoseconds = static_cast<double>(times[count / 2] * count);
    sample.placement = placement_now();
    sample.disturbed |= sample.placement != before;
    return sample;
  };
}

// There are more threads than cores, so a preemption does not count as a disturbance.
Measure flood(const peer_pool& pool) {
  return [pool](uint64_t count) {
    const Placement before = placement_now();
    jobs_left.store(count);
    Sample sample = timed([&] {
      pool.flood(count_down, nullptr, static_cast<unsigned>(count));
      wait_for_report();
    });
    settle(pool);
    spin_for(pool.pause);
    sample.placement = placement_now();
    sample.disturbed = sample.placement != before;
    return sample;
  };
}

template <typename MakeRow>
std::vector<Row> rows_of(const std::vector<const char*>& names, MakeRow make_row) {
  std::vector<Row> rows;
  for (const char* const name : names) {
    if (const peer_pool* const pool = peer_pool_named(name); pool != nullptr) {
      rows.push_back(make_row(*pool));
    }
  }
  return rows;
}

std::optional<AwakeCores> awake;

}  // namespace

Times time_start(void (*start)(peer_job job, void* arg)) {
  const uint64_t before = now();
  start(tell, nullptr);
  wait_for_report();
  return {report.began - before, now() - before};
}

Times time_join(void (*)(peer_job job, void* arg)) {
  const uint64_t before = now();
  pthread_t thread;
  pthread_create(&thread, nullptr, tell, nullptr);
  pthread_join(thread, nullptr);
  const uint64_t end = now();
  wait_for_report();
  return {report.began - before, end - before};
}

Row row_of_starts(Figure figure, const peer_pool& pool, TimeOne time_one) {
  return {pool.name, starts(figure, pool, time_one), kStarts};
}

Row row_of_flood(const peer_pool& pool) { return {pool.name, flood(pool), kFlood}; }

std::vector<Row> peers_of_starts(Figure figure, const std::vector<const char*>& names) {
  return rows_of(names, [figure](const peer_pool& pool) { return row_of_starts(figure, pool); });
}

std::vector<Row> peers_of_flood(const std::vector<const char*>& names) { return rows_of(names, row_of_flood); }

Group group_of_starts(Group group, std::string (*prepare)()) {
  group.cores = 2;
  group.set_up = [prepare] {
    awake.emplace();
    sem_init(&report.done, 0, 0);
    return prepare();
  };
  group.tear_down = [] { awake.reset(); };
  return group;
}

}  // namespace tirn::bench
