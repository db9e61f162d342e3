// The wheel under the timers: filing, taking off, and the work of one millisecond. It knows no thread; the time that
// an idle wheel starts over from is that of kesa_time_getmillisec. All functions need the root's lock.
#ifndef TIRN_TIMER_TIMER_WHEEL_H
#define TIRN_TIMER_TIMER_WHEEL_H

#include <atomic>

#include "libtirn/base/list.h"
#include "tirn/timer.h"

namespace tirn::timer {

constexpr uint64_t kLongestSleep = 20;  // milliseconds

// Read without the lock by callers that test whether a timer is pending.
inline std::atomic_ref<kesa_list_head*> next_of(kesa_timer& timer) { return std::atomic_ref(timer.link.next); }
inline std::atomic_ref<uint64_t> expires_of(kesa_timer& timer) { return std::atomic_ref(timer.expires); }
// Changes under the lock and under the mutex, whichever the thread holds; the last store counts.
inline std::atomic_ref<uint64_t> wake_of(kesa_timer_root& root) { return std::atomic_ref(root.nextWake); }
// Cleared without the lock once the callback has returned.
inline std::atomic_ref<kesa_timer*> running_of(kesa_timer_root& root) { return std::atomic_ref(root.runningTimer); }

inline bool is_pending(kesa_timer& timer) { return next_of(timer).load(std::memory_order_relaxed) != nullptr; }

// Takes all timers off, without any check, also those that a tick is running. A zeroed root becomes an empty wheel.
void empty_slots(kesa_timer_root& root);

// Lets an idle wheel go on from the present time, so that it has nothing to catch up.
void start_over(kesa_timer_root& root);

// Puts a timer at the end of the slot of its `expires`.
void attachTimerToList(kesa_timer_root& root, kesa_timer& timer);

// Takes a timer off its slot. With `clear_next` false it still looks pending, because it is filed again at once.
void detachTimerFromList(kesa_timer_root& root, kesa_timer& timer, bool clear_next);

// Returns the time of the next slot of the first level that is not empty, at most 19 ms ahead.
uint64_t next_wake(const kesa_timer_root& root);

// Runs the timers of wheelTime, after filing those that come into the range of a lower level, and moves on by 1 ms.
// The lock is released during each callback.
void run_tick(kesa_timer_root& root);

}  // namespace tirn::timer

#endif
