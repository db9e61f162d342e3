// Measures starting, changing and firing timers, and how late they fire.
#include <semaphore.h>
#include <sys/prctl.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "peers/peers.h"
#include "support/bench.h"
#include "support/data.h"
#include "support/machine.h"
#include "tirn/jiffies.h"
#include "tirn/timer.h"

namespace tirn::bench {
namespace {

constexpr uint64_t kHour = 3'600'000;  // milliseconds
constexpr uint64_t kDue = 200;         // all timers of an expiry are due within so many
constexpr char kHeap[] = "libevent, heap";
constexpr char kCommon[] = "libevent, common timeout";
constexpr char kLibuv[] = "libuv";

std::vector<kesa_timer> timers;
std::atomic<uint64_t> fired;
std::atomic<bool> is_held;
std::atomic<uint64_t> last_at;  // when the last timer fired

void note_last(uint64_t) {
  if (++fired == timers.size()) {
    last_at = now();
  }
}

void hold_thread(uint64_t) {
  while (is_held) {
    usleep(100);
  }
}

void make_ours(uint32_t count) {
  start_apart([] { kesa_timer_module_init(); });
  timers.resize(count);
  for (kesa_timer& timer : timers) {
    kesa_timer_set(&timer, 1, 0, note_last);
  }
}
void start_ours(uint32_t index, uint64_t milliseconds) { kesa_timer_modify(&timers[index], milliseconds); }
void stop_ours(uint32_t index) { kesa_timer_delete(&timers[index]); }

constexpr peer_timers kOurs{"kesa_timer", make_ours, start_ours, stop_ours, nullptr};

uint32_t random_number() { return static_cast<uint32_t>(random_numbers()()); }

// Far enough away that no timer fires during the measurement.
uint64_t random_timeout() { return kHour / 2 + random_number() % kHour; }

// Makes `count` timers when they are first measured and starts all but the first.
void make_pending(const peer_timers& kind, uint32_t count) {
  kind.make(count + 1);
  for (uint32_t i = 1; i <= count; ++i) {
    kind.start(i, random_timeout());
  }
}

template <typename Operation>
Row row_of(const peer_timers& kind, uint32_t count, Operation operation) {
  auto is_made = std::make_shared<bool>(false);
  return {kind.name, one_thread(
                         [&kind, count, is_made] {
                           if (!std::exchange(*is_made, true)) {
                             make_pending(kind, count);
                           }
                           return &kind;
                         },
                         [count, operation](const peer_timers* measured) { operation(*measured, count); })};
}

void start_and_stop(const peer_timers& kind, uint32_t) {
  kind.start(0, random_timeout());
  kind.stop(0);
}
void rearm(const peer_timers& kind, uint32_t count) { kind.start(1 + random_number() % count, random_timeout()); }

// Starts all timers, lets them become due, and runs them.
Row expiry_row(const peer_timers& kind, uint32_t count) {
  auto is_made = std::make_shared<bool>(false);
  return {kind.name,
          [&kind, is_made](uint64_t wanted) {
            const auto size = static_cast<uint32_t>(wanted);
            if (!std::exchange(*is_made, true)) {
              kind.make(size);
            }
            const bool is_ours = kind.run == nullptr;
            kesa_timer holder{};
            if (is_ours) {
              fired = 0;
              is_held = true;
              kesa_timer_set(&holder, 1, 0, hold_thread);
              kesa_timer_add(&holder);
              usleep(5000);
            } else {
              kind.run();
            }
            for (uint32_t i = 0; i < size; ++i) {
              kind.start(i, 1 + random_number() % kDue);
            }
            usleep((kDue + 50) * 1000);
            if (!is_ours) {
              uint64_t done = 0;
              return timed([&] {
                while (done < size) {
                  done += kind.run();
                }
              });
            }
            const uint64_t start = now();
            is_held = false;
            while (fired < size) {
              usleep(1000);
            }
            kesa_timer_delete_sync(&holder);
            return Sample{static_cast<double>(last_at - start)};
          },
          count};
}

template <typename MakeRow>
std::vector<Row> peer_rows(std::initializer_list<const char*> names, MakeRow make_row) {
  std::vector<Row> rows;
  for (const char* const name : names) {
    if (const peer_timers* const peer = peer_timers_named(name); peer != nullptr) {
      rows.push_back(make_row(*peer));
    }
  }
  return rows;
}

Group group_of(const char* name, double target, uint32_t count, void (*operation)(const peer_timers&, uint32_t),
               std::initializer_list<const char*> peers, std::initializer_list<const char*> shown) {
  const auto make_row = [count, operation](const peer_timers& kind) { return row_of(kind, count, operation); };
  return {.name = name,
          .target = target,
          .ours = make_row(kOurs),
          .peers = peer_rows(peers, make_row),
          .shown = peer_rows(shown, make_row)};
}

// Lateness: each waiter lets `delay` nanoseconds pass and returns how much later the wait has ended.
using Waiter = uint64_t (*)(uint64_t delay);

sem_t rung;
std::atomic<uint64_t> rung_at;
void ring(uint64_t) {
  rung_at = now();
  sem_post(&rung);
}
void wait_for_ring() {
  while (sem_wait(&rung) != 0) {
  }
}

uint64_t late_wheel(uint64_t delay) {
  static kesa_timer timer;
  kesa_timer_set(&timer, delay / 1'000'000, 0, ring);
  const uint64_t origin = now() - kesa_time_getnanosec();
  kesa_timer_add(&timer);
  const uint64_t due = origin + timer.expires * 1'000'000;
  wait_for_ring();
  return rung_at > due ? rung_at - due : 0;
}
uint64_t late_hr(uint64_t delay) {
  static kesa_timer timer;
  kesa_timer_set(&timer, delay, 0, ring);
  kesa_timer_add_ns(&timer);
  const uint64_t due =
      static_cast<uint64_t>(timer.hrExpireSec) * 1'000'000'000 + static_cast<uint64_t>(timer.hrExpireNsec);
  wait_for_ring();
  return rung_at - due;
}

timespec in_form(uint64_t time) {
  return {static_cast<time_t>(time / 1'000'000'000), static_cast<long>(time % 1'000'000'000)};
}

uint64_t late_condition(uint64_t delay) {
  static pthread_cond_t cond = [] {
    prctl(PR_SET_TIMERSLACK, 1ul);
    pthread_cond_t made;
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&made, &attributes);
    return made;
  }();
  static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  const uint64_t due = now() + delay;
  const timespec end = in_form(due);
  pthread_mutex_lock(&mutex);
  while (pthread_cond_timedwait(&cond, &mutex, &end) == 0) {
  }
  const uint64_t at = now();
  pthread_mutex_unlock(&mutex);
  return at - due;
}
uint64_t late_timerfd(uint64_t delay) {
  static const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  const uint64_t due = now() + delay;
  const itimerspec end{{}, in_form(due)};
  timerfd_settime(fd, TFD_TIMER_ABSTIME, &end, nullptr);
  uint64_t times;
  while (read(fd, &times, sizeof times) < 0) {
  }
  return now() - due;
}

constexpr uint64_t kWaits = 100;  // in a repetition, which counts with one of their percentiles

Row late_row(const char* name, Waiter wait, uint64_t delay, unsigned percentile) {
  return {name,
          [=](uint64_t count) {
            std::vector<uint64_t> late(count);
            Sample sample = timed([&] {
              for (uint64_t& one : late) {
                one = wait(delay);
              }
            });
            std::sort(late.begin(), late.end());
            sample.nanoseconds = static_cast<double>(late[(count - 1) * percentile / 100] * count);
            sample.disturbed = false;  // a preemption is part of what is measured
            return sample;
          },
          kWaits};
}

Group lateness(const std::string& name, uint64_t delay, unsigned percentile) {
  const bool is_fine = delay < 1'000'000;
  return {.name = "timer/late/" + name + "/p" + std::to_string(percentile),
          .target = 1.1,
          .unit = kMicroseconds,
          .set_up =
              [] {
                sem_init(&rung, 0, 0);
                kesa_timer_module_init();
                return std::string();
              },
          .ours = late_row(is_fine ? "kesa_timer_add_ns" : "kesa_timer_add", is_fine ? late_hr : late_wheel, delay,
                           percentile),
          .peers = {late_row("pthread_cond_timedwait, slack 1 ns", late_condition, delay, percentile)},
          .shown = {late_row("timerfd", late_timerfd, delay, percentile)}};
}

const Family family{[] {
  constexpr uint32_t kFew = 1000, kMany = 1'000'000;
  const auto expiry = [](const peer_timers& kind) { return expiry_row(kind, kMany); };
  std::vector<Group> groups{
      group_of("timer/start_stop/1000", 1.1, kFew, start_and_stop, {kCommon}, {kHeap, kLibuv}),
      group_of("timer/start_stop/1000000", 1.1, kMany, start_and_stop, {kCommon}, {kHeap}),
      group_of("timer/start_stop_against_libuv/1000000", 0.3, kMany, start_and_stop, {kLibuv}, {}),
      group_of("timer/rearm/1000", 0, kFew, rearm, {kHeap, kLibuv}, {kCommon}),
      group_of("timer/rearm/1000000", 0.15, kMany, rearm, {kHeap, kLibuv}, {kCommon}),
      {.name = "timer/expire/1000000",
       .target = 0.3,
       .cores = 2,
       .ours = expiry_row(kOurs, kMany),
       .peers = peer_rows({kHeap, kLibuv}, expiry)}};
  for (const unsigned percentile : {50u, 99u}) {
    groups.push_back(lateness("100us", 100'000, percentile));
    groups.push_back(lateness("1ms", 1'000'000, percentile));
    groups.push_back(lateness("5ms", 5'000'000, percentile));
    groups.push_back(lateness("50ms", 50'000'000, percentile));
  }
  return groups;
}};

}  // namespace
}  // namespace tirn::bench
