// The timing wheel. Its levels follow the clock: a timer moves to a lower level when the digits above have come.
#include "libtirn/timer/timer_wheel.h"

#include <algorithm>

#include "libtirn/base/list_check.h"
#include "libtirn/base/log.h"
#include "libtirn/base/spinlock.h"
#include "tirn/jiffies.h"

namespace tirn::timer {
namespace {

// Milliseconds in a slot of each level but the first, and slots in a level.
constexpr uint64_t kSecond = 1000;
constexpr uint64_t kMinute = 60 * kSecond;
constexpr uint64_t kHour = 60 * kMinute;
constexpr uint64_t kTop = 60 * kHour;
constexpr uint64_t kDigits = 60;
constexpr uint64_t kTopSlots = 24;

static_assert(KESA_TIMER_REACH == kTop * kTopSlots);

constexpr char kThread[] = "kesa_run_timers";

// The head of the list of timers that a tick runs; the lists of the root do not hold them any more. A whole timer,
// not only a link, because a check may show what is around a node.
constinit kesa_timer g_due{};

kesa_timer& timer_of(kesa_list_head* link) {
  return *reinterpret_cast<kesa_timer*>(reinterpret_cast<char*>(link) - offsetof(kesa_timer, link));
}

template <typename Action>
void for_each_slot(kesa_timer_root& root, Action action) {
  const struct {
    kesa_list_head* slots;
    size_t count;
  } kLevels[] = {{root.tv1, std::size(root.tv1)},
                 {root.tv2, std::size(root.tv2)},
                 {root.tv3, std::size(root.tv3)},
                 {root.tv4, std::size(root.tv4)},
                 {root.tv5, std::size(root.tv5)}};
  for (const auto& level : kLevels) {
    std::for_each_n(level.slots, level.count, action);
  }
}

kesa_list_head& slot_for(kesa_timer_root& root, uint64_t expires) {
  const uint64_t time = root.wheelTime;
  if (expires <= time) {
    return root.tv1[time % kSecond];
  }
  const uint64_t delta = expires - time;
  if (delta < kSecond) {
    return root.tv1[expires % kSecond];
  }
  if (delta < kMinute) {
    return root.tv2[expires / kSecond % kDigits];
  }
  if (delta < kHour) {
    return root.tv3[expires / kMinute % kDigits];
  }
  if (delta < kTop) {
    return root.tv4[expires / kHour % kDigits];
  }
  return root.tv5[(delta > KESA_TIMER_REACH ? time + KESA_TIMER_REACH : expires) / kTop % kTopSlots];
}

// Files the timers of a slot anew. Returns whether the level has come full circle, so that the next one is due.
bool recalculate_timer_slot(kesa_timer_root& root, kesa_list_head* level, uint64_t index) {
  constexpr list::Reporter kReporter{"recalculate_timer_slot", kesa_timer_show};
  kesa_timer local{};  // not only a link, because a check may show what is around it
  list::check(&level[index], kReporter);
  list::move_all(&level[index], &local.link);
  while (!list::is_empty(&local.link)) {
    kesa_list_head* const first = local.link.next;
    kesa_list_head* const second = first->next;
    list::check(first, kReporter, &local.link);
    list::unlink(first);
    list::step_over(&local.link, first, second);
    attachTimerToList(root, timer_of(first));
  }
  return index == 0;
}

void cascade(kesa_timer_root& root, uint64_t time) {
  if (recalculate_timer_slot(root, root.tv2, time / kSecond % kDigits) &&
      recalculate_timer_slot(root, root.tv3, time / kMinute % kDigits) &&
      recalculate_timer_slot(root, root.tv4, time / kHour % kDigits)) {
    recalculate_timer_slot(root, root.tv5, time / kTop % kTopSlots);
  }
}

void report_cost(const kesa_timer* timer, kesa_timer_fn function, const char* setter, uint64_t cost) {
  const unsigned long long address = reinterpret_cast<uintptr_t>(timer);
  const unsigned long long entry = reinterpret_cast<uintptr_t>(function);
  TIRN_LIMITED_AS(kThread, kWarning, "Timer 0x%llx func 0x%llx added by %s cost %llu ms.", address, entry, setter,
                  static_cast<unsigned long long>(cost));
  TIRN_LOG_WRITE(0, kWarning, kFile.text, __LINE__, kThread,
                 "[Infra]Timer 0x%llx func 0x%llx added by %s cost %llu ms.", address, entry, setter,
                 static_cast<unsigned long long>(cost));
}

// Takes the first timer off the list of those that are due, and calls its function without the lock. Once the timer
// is off the list it may be set anew, and freed once the lock is released, so what is needed of it is read before.
void run_first_due(kesa_timer_root& root) {
  kesa_list_head* const second = g_due.link.next->next;
  kesa_timer& timer = timer_of(g_due.link.next);
  const kesa_timer_fn function = timer.func;
  const char* const setter = timer.funcName;
  const uint64_t data = timer.data;
  list::check(&timer.link, {kThread, kesa_timer_show}, &g_due.link);
  if (function == nullptr) [[unlikely]] {
    kesa_timer_show(&timer.link);
  }
  running_of(root).store(&timer, std::memory_order_relaxed);
  detachTimerFromList(root, timer, true);
  list::step_over(&g_due.link, &timer.link, second);
  unlock_spinlock(root.lock);
  const uint64_t start = kesa_time_getmillisec();
  // A NULL function is logged, and then called all the same: the fault shows where it happens.
  // cppcheck-suppress nullPointerRedundantCheck
  function(data);  // NOLINT(clang-analyzer-core.CallAndMessage)
  const uint64_t cost = kesa_time_getmillisec() - start;
  if (cost > KESA_TIMER_SLOW_CALLBACK) [[unlikely]] {
    report_cost(&timer, function, setter, cost);
  }
  // Release: a thread that sees the callback ended also sees what it has done. Pairs with the load in delete_sync.
  running_of(root).store(nullptr, std::memory_order_release);
  lock_spinlock(root.lock);
}

}  // namespace

void empty_slots(kesa_timer_root& root) {
  const auto empty = [](kesa_list_head& slot) {
    for (kesa_list_head* link = slot.next; list::leads_somewhere(link) && link != &slot;) {
      kesa_list_head* const next = link->next;
      list::set(link->next, nullptr);
      list::set(link->prev, KESA_LIST_POISON_PREV);
      link = next;
    }
    list::init(&slot);
  };
  for_each_slot(root, empty);
  empty(g_due.link);
  root.pendingCount = 0;
}

void start_over(kesa_timer_root& root) {
  root.wheelTime = kesa_time_getmillisec();
  wake_of(root).store(root.wheelTime + kLongestSleep, std::memory_order_relaxed);
}

void attachTimerToList(kesa_timer_root& root, kesa_timer& timer) {
  list::append(&slot_for(root, timer.expires), &timer.link);
}

void detachTimerFromList(kesa_timer_root& root, kesa_timer& timer, bool clear_next) {
  list::check(&timer.link, {__func__, kesa_timer_show});
  list::unlink(&timer.link);
  if (clear_next) {
    list::set(timer.link.next, nullptr);
  }
  list::set(timer.link.prev, KESA_LIST_POISON_PREV);
  if (root.pendingCount != 0 && --root.pendingCount == 0) {  // 0 before: a damaged list has given up timers
    start_over(root);
  }
}

uint64_t next_wake(const kesa_timer_root& root) {
  const uint64_t first = (root.wheelTime - 1) % kSecond + 1;
  const uint64_t last = std::min<uint64_t>(first, kSecond - kLongestSleep) + kLongestSleep - 1;
  uint64_t at = first;
  while (at < last && list::is_empty(&root.tv1[at])) {
    ++at;
  }
  return root.wheelTime + (at - first);
}

void run_tick(kesa_timer_root& root) {
  const uint64_t time = root.wheelTime;
  kesa_list_head& slot = root.tv1[time % kSecond];
  if (time % kSecond == 0) {
    cascade(root, time);
  }
  root.wheelTime = time + 1;
  list::check(&slot, {kThread, kesa_timer_show});
  list::move_all(&slot, &g_due.link);
  while (!list::is_empty(&g_due.link)) {
    run_first_due(root);
  }
}

}  // namespace tirn::timer
