// Looks at the pool of scheduled work from outside, and keeps its threads busy.
#ifndef TIRN_TEST_POOL_WATCH_H
#define TIRN_TEST_POOL_WATCH_H

#include <atomic>
#include <deque>
#include <string>

#include "support/printed.h"
#include "support/temp_folder.h"
#include "support/wait_until.h"
#include "tirn/cfg.h"
#include "tirn/schedwork.h"
#include "tirn/thread.h"

namespace tirn::test {

inline void configure_pool(const std::string& items) {
  const TempFolder folder;
  kesa_cfg_init(folder.write_file("pool.ini", "[KESA]\n" + items).c_str());
}

// For tests that the threads of the pool, or a log line about a missing item, would disturb.
inline void have_no_pool_threads() { configure_pool("SCHED_THREAD_FREE_NUM_MIN=0\nSCHED_THREAD_FREE_NUM_MAX=0\n"); }

// Waits until the pool has so many threads.
inline bool pool_becomes(size_t threads) {
  return wait_until([threads] {
    const std::string list = printed([](kesa_print_fn print) { kesa_thrd_list(print, 0, 0, 0, 0); });
    size_t count = 0;
    for (size_t at = 0; (at = list.find("kesa_schedwork", at)) != std::string::npos; ++at) {
      ++count;
    }
    return count == threads;
  });
}

// Returns a record that lives as long as the process.
inline kesa_sched_work& new_work(kesa_sched_work_fn handler, uint32_t seconds = 0) {
  static auto& works = *new std::deque<kesa_sched_work>;
  kesa_sched_init_work(&works.emplace_back(), handler, nullptr);
  works.back().timeout = seconds;
  return works.back();
}

inline std::atomic<uint32_t> g_inside{0};  // handlers that wait for the gate
inline std::atomic<bool> g_is_open{false};

// Returns once so many more threads are busy.
inline bool block_threads(uint32_t count, uint32_t seconds = 0) {
  g_is_open = false;
  const uint32_t wanted = g_inside + count;
  for (uint32_t i = 0; i < count; ++i) {
    const auto wait_at_gate = [](kesa_sched_work*) {
      return ++g_inside, g_is_open.wait(false), static_cast<int>(--g_inside);
    };
    kesa_sched_add_work(&new_work(wait_at_gate, seconds));
  }
  return wait_until([wanted] { return g_inside == wanted; });
}

inline bool free_threads() {
  g_is_open = true;
  g_is_open.notify_all();
  return wait_until([] { return g_inside == 0; });
}

}  // namespace tirn::test

#endif
