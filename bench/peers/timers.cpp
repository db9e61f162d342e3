// Calls the timers of other libraries.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "peers/peers.h"

#ifdef PEERS_UV
#include <uv.h>
#endif
#ifdef PEERS_EVENT
#include <event2/event.h>
#include <event2/event_struct.h>
#endif

namespace {

uint64_t fired;

#ifdef PEERS_UV
uv_loop_t uv_loop;
std::vector<uv_timer_t> uv_timers;

void make_uv(uint32_t count) {
  uv_loop_init(&uv_loop);
  uv_timers.resize(count);
  for (uv_timer_t& timer : uv_timers) {
    uv_timer_init(&uv_loop, &timer);
  }
}
void start_uv(uint32_t index, uint64_t milliseconds) {
  uv_timer_start(
      &uv_timers[index], [](uv_timer_t*) { ++fired; }, milliseconds, 0);
}
void stop_uv(uint32_t index) { uv_timer_stop(&uv_timers[index]); }
uint64_t run_uv() {
  fired = 0;
  uv_run(&uv_loop, UV_RUN_NOWAIT);
  uv_update_time(&uv_loop);
  return fired;
}
#endif

#ifdef PEERS_EVENT
// With kIsCommon, all timers have the one timeout of a list that libevent keeps for it, whatever is asked.
template <bool kIsCommon>
struct EventTimers {
  static inline event_base* base;
  static inline std::vector<event> events;
  static inline const timeval* common;

  static void make(uint32_t count) {
    base = event_base_new();
    const timeval timeout{30, 0};
    common = event_base_init_common_timeout(base, &timeout);
    events.resize(count);
    for (event& timer : events) {
      evtimer_assign(
          &timer, base, [](evutil_socket_t, short, void*) { ++fired; }, nullptr);
    }
  }
  static void start(uint32_t index, uint64_t milliseconds) {
    const timeval timeout{static_cast<time_t>(milliseconds / 1000),
                          static_cast<suseconds_t>(milliseconds % 1000 * 1000)};
    evtimer_add(&events[index], kIsCommon ? common : &timeout);
  }
  static void stop(uint32_t index) { evtimer_del(&events[index]); }
  static uint64_t run() {
    fired = 0;
    event_base_loop(base, EVLOOP_NONBLOCK);
    return fired;
  }
};
using Heap = EventTimers<false>;
using Common = EventTimers<true>;
#endif

constexpr peer_timers kTimers[] = {
#ifdef PEERS_UV
    {"libuv", make_uv, start_uv, stop_uv, run_uv},
#endif
#ifdef PEERS_EVENT
    {"libevent, heap", Heap::make, Heap::start, Heap::stop, Heap::run},
    {"libevent, common timeout", Common::make, Common::start, Common::stop, Common::run},
#endif
    {},
};

}  // namespace

const peer_timers* peer_timers_named(const char* name) {
  for (const peer_timers& timers : kTimers) {
    if (timers.name != nullptr && std::strcmp(timers.name, name) == 0) {
      return &timers;
    }
  }
  return nullptr;
}
