#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <numeric>
#include <shared_mutex>
#include <thread>
#include <vector>

#include "support/wait_until.h"
#include "sync/together.h"
#include "tirn/jiffies.h"
#include "tirn/lock.hpp"

namespace {

// Takes the write lock by one of its two forms at random; they mark the word differently.
struct MixedRwLock : tirn::RwLock {
  void lock() { rand() % 2 == 0 ? kesa_rwlock_write_lock_mayblock(native()) : kesa_rwlock_write_lock(native()); }
  bool try_lock() { return lock(), true; }
};

template <typename Lock>
class LockStress : public testing::Test {};
using Locks = testing::Types<tirn::SpinLock, MixedRwLock, tirn::TicketSpinLock, tirn::TicketRwLock>;
TYPED_TEST_SUITE(LockStress, Locks);

// Sets the counters, if the lock has any, just below the wrap, so that they wrap while threads wait.
void set_near_wrap(auto& lock) {
  if constexpr (requires { lock.native()->serving; }) {
    lock.native()->serving = lock.native()->next = UINT32_MAX - 3;
  } else if constexpr (requires { lock.native()->writer_tickets; }) {
    lock.native()->released = lock.native()->tickets = UINT32_MAX - 3;
    lock.native()->writers_released = lock.native()->writer_tickets = UINT32_MAX - 3;
  }
}

// Checks that threads that arrive one after the other while the lock is held are served in that order.
void check_order(auto& lock, uint32_t& next) {
  std::vector<int> served, expected(8);
  std::iota(expected.begin(), expected.end(), 0);
  set_near_wrap(lock);
  lock.lock();
  std::vector<std::jthread> threads;
  for (const int i : expected) {
    const uint32_t before = std::atomic_ref(next).load();
    threads.emplace_back([&lock, &served, i] {
      const std::lock_guard hold(lock);
      served.push_back(i);
    });
    EXPECT_TRUE(tirn::test::wait_until([&] { return std::atomic_ref(next).load() == before + 1; }));
  }
  lock.unlock();
  threads.clear();
  EXPECT_EQ(served, expected);
}

}  // namespace

// Only the lock guards the two plain variables. A second writer would lose an update, and a reader beside a writer
// would see two different values.
TYPED_TEST(LockStress, OneWriterOrReaders) {
  kesa_gettime_init();
  TypeParam lock;
  set_near_wrap(lock);
  uint64_t first = 0, second = 0;
  std::atomic<uint64_t> written{0}, broken{0};
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
  tirn::test::together(4, [&](unsigned) {
    for (unsigned i = 0; std::chrono::steady_clock::now() < end || written <= 8; ++i) {
      if constexpr (requires { lock.lock_shared(); }) {
        std::shared_lock hold(lock, std::try_to_lock);
        if (!hold.owns_lock() && i % 2 == 0) {
          hold.lock();
        }
        broken += hold.owns_lock() && first != second;
      }
      std::unique_lock hold(lock, std::try_to_lock);
      if (!hold.owns_lock()) {
        hold.lock();
      }
      broken += ++first != second + 1;
      ++second;
      ++written;
    }
  });
  EXPECT_TRUE(broken == 0 && second == written) << broken << ' ' << second << ' ' << written;
}

TEST(TicketOrder, FirstComeFirstServed) {
  tirn::TicketSpinLock spin;
  tirn::TicketRwLock rw;
  check_order(spin, spin.native()->next);
  check_order(rw, rw.native()->tickets);
}
