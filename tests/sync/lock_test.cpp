#include "tirn/lock.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "tirn/jiffies.h"
#include "tirn/percpu_posix.h"

using namespace tirn::test;

namespace {

char g_expected[128];

// The log line of the waiting thread's stack begins with the return address of this function.
__attribute__((noinline)) void wait_for(kesa_spinlock* spinlock) {
  std::snprintf(g_expected, sizeof g_expected, "current tid:%d, stack:%p(*) << *(*) << *(*).", gettid(),
                __builtin_return_address(0));
  kesa_spinlock_lock(spinlock);
  kesa_spinlock_unlock(spinlock);
}

size_t lines_while_it_waits(LogCapture& log) {
  log.clear();
  kesa_spinlock spinlock = {};
  kesa_spinlock_lock(&spinlock);
  EXPECT_EQ(kesa_spinlock_trylock(&spinlock), 0);
  std::thread waiter(wait_for, &spinlock);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  kesa_spinlock_unlock(&spinlock);
  waiter.join();
  EXPECT_EQ(log.lines().size(), log.count(g_expected)) << g_expected << '\n' << log;
  return log.lines().size();
}

}  // namespace

TEST(Spinlock, WaiterSleepsAndShowsItsStackWhereAskedTo) {
  LogCapture log;
  uint64_t flags = 0;
  kesa_spinlock_set_flags(~uint64_t{0});
  EXPECT_EQ(lines_while_it_waits(log), 0u) << "it slept without a clock";
  kesa_gettime_init();
  EXPECT_GE(lines_while_it_waits(log), 2u);
  kesa_spinlock_clear_flags(KESA_SPINLOCK_FLAG_DUMP);
  EXPECT_EQ(lines_while_it_waits(log), 0u);
  kesa_spinlock_get_flags(&flags);
  EXPECT_EQ(flags, ~uint64_t{1});
}

TEST(WordRwLock, BothMarksOfAWriterKeepReadersOut) {
  uint64_t word = 0;
  kesa_rwlock_read_lock(&word);
  kesa_rwlock_read_lock_mayblock(&word);
  EXPECT_EQ(word, 2u);
  kesa_rwlock_read_unlock(&word);
  kesa_rwlock_read_unlock(&word);
  for (auto* const take : {kesa_rwlock_write_lock, kesa_rwlock_write_lock_mayblock}) {
    take(&word);
    EXPECT_EQ(word, take == kesa_rwlock_write_lock ? UINT64_MAX : uint64_t{1} << 63);
    EXPECT_EQ(kesa_rwlock_try_read_lock(&word), 0);
    kesa_rwlock_write_unlock(&word);
  }
}

TEST(TicketSpinlock, MisuseIsLoggedAndChangesNothing) {
  LogCapture log;
  kesa_tspinlock lock = {6, 6, 0, 3, 4};
  const auto at = [&](uint32_t serving, uint32_t next) { return lock.serving == serving && lock.next == next; };
  do_kesa_tspinlock_lock(&lock, "here", 77);
  EXPECT_EQ(do_kesa_tspinlock_trylock(&lock, "here", 78), 0);
  do_kesa_tspinlock_init(&lock, "here", 79);
  EXPECT_TRUE(at(0, 0));
  lock.serving = lock.next = UINT32_MAX;
  EXPECT_EQ(kesa_tspinlock_trylock(&lock), 1);
  EXPECT_TRUE(at(UINT32_MAX, 0));
  kesa_tspinlock_unlock(&lock);
  do_kesa_tspinlock_unlock(&lock, "here", 80);
  EXPECT_TRUE(at(1, 0));
  do_kesa_tspinlock_init(&lock, "here", 81);
  std::thread([&] { kesa_tspinlock_lock(&lock), lock.owner = 5; }).join();
  do_kesa_tspinlock_unlock(&lock, "here", 82);
  EXPECT_TRUE(at(1, 1));
  do_kesa_tspinlock_destroy(&lock, "here", 83);
  do_kesa_tspinlock_destroy(&lock, "here", 84);
  hurn_loglevel_set(TIRN_MODULE_ID, HURN_WARNING);
  do_kesa_tspinlock_destroy(&lock, "here", 85);
  const std::string self = std::to_string(gettid());
  const std::string nobody = "owner:18446744073709551615 other:4294967295";
  const std::string expected[] = {
      "lock: UnInited lock in here:77 lock:0x600000006 magic:0x0 owner:4 other:3",
      "trylock: UnInited lock in here:78 lock:0x700000006 magic:0x0 owner:" + self + " other:3",
      "trylock: AA lock in here:78 lock:0x700000006 magic:0x0 owner:" + self + " other:3",
      "unlock: AB lock in here:80 lock:0x0 magic:0xdead5ead " + nobody,
      "ticket_unlock: ReUnlock in here:80 lock:0x0 magic:0xdead5ead " + nobody,
      "init: ReInited lock in here:81 lock:0x1 magic:0xdead5ead " + nobody,
      "unlock: AB lock in here:82 lock:0x100000000 magic:0xdead5ead owner:5 other:4294967295",
      "destroy: UnInited lock in here:84 lock:0x100000001 magic:0x5eaddead " + nobody,
  };
  ASSERT_EQ(log.lines().size(), std::size(expected)) << log;
  std::set<uint32_t> places;
  for (size_t i = 0; i < std::size(expected); ++i) {
    const LogLine line = log.lines()[i];
    places.insert(line.line);
    EXPECT_EQ(line.function + ": " + line.text, (i == 4 ? "" : "do_kesa_tspinlock_") + expected[i]);
    EXPECT_EQ(line.level, HURN_INFO);
  }
  EXPECT_EQ(places.size(), 6u);  // the source line of each function that logs; unlock has two
}

TEST(TicketRwLock, CountersWrapEachByItself) {
  constexpr uint32_t kLast = UINT32_MAX;
  using Words = std::array<uint32_t, 4>;  // in the order of the record's fields
  const auto check = [](auto operate, const Words& before, const Words& after) {
    auto lock = std::bit_cast<kesa_trwlock>(before);
    if constexpr (std::is_void_v<decltype(operate(&lock))>) {
      operate(&lock);
    } else {
      EXPECT_EQ(operate(&lock), before != after);
    }
    EXPECT_EQ(std::bit_cast<Words>(lock), after);
  };
  check(do_kesa_trwlock_read_lock, {kLast, 7, kLast, 7}, {kLast, 7, 0, 7});
  check(do_kesa_trwlock_read_trylock, {kLast - 1, kLast, kLast, kLast}, {kLast - 1, kLast, 0, kLast});
  check(do_kesa_trwlock_read_trylock, {0, kLast, 2, 0}, {0, kLast, 2, 0});  // a writer waits for a reader
  check(do_kesa_trwlock_read_unlock, {kLast, 7, 0, 7}, {0, 7, 0, 7});
  check(do_kesa_trwlock_write_lock, {kLast, kLast, kLast, kLast}, {kLast, kLast, 0, 0});
  check(do_kesa_trwlock_write_trylock, {kLast, 7, kLast, 7}, {kLast, 7, 0, 8});
  check(do_kesa_trwlock_write_trylock, {kLast, 7, 0, 7}, {kLast, 7, 0, 7});  // a reader holds it
  check(do_kesa_trwlock_write_unlock, {kLast, kLast, 0, 0}, {0, 0, 0, 0});
  check(do_kesa_trwlock_init, {1, 2, 3, 4}, {0, 0, 0, 0});
}

int g_calls = 0;

TEST(ThreadKeys, ErrorsComeBackAndAreLogged) {
  LogCapture log;
  pthread_key_t key = 0;
  pthread_once_t once = PTHREAD_ONCE_INIT;
  int value = 0;
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(kesa_pthread_init_once(&once, [] { ++g_calls; }), 0);
  }
  EXPECT_EQ(kesa_key_create(&key, [](void*) { ++g_calls; }), 0);
  std::thread([&] { EXPECT_EQ(kesa_key_setspecific(key, &value), 0); }).join();
  EXPECT_EQ(g_calls, 2);
  EXPECT_EQ(kesa_key_setspecific(key, &value), 0);
  EXPECT_EQ(kesa_key_setspecific(key, nullptr), -1);
  EXPECT_EQ(kesa_key_getspecific(key), &value);
  EXPECT_EQ(kesa_key_delete(key), 0);
  EXPECT_EQ(kesa_key_delete(key), EINVAL);
  EXPECT_EQ(kesa_key_setspecific(key, &value), EINVAL);
  EXPECT_EQ(kesa_key_getspecific(key), nullptr);
  EXPECT_EQ(log.texts(),
            (std::vector<std::string>{"param(value) is null !\n", "pthread_key_delete failed!\n",
                                      "pthread_setspecific failed!\n", "pthread_getspecific failed!\n"}));
}
