// Measures each lock alone, with two threads on two cores, and with more threads than cores.
#include <pthread.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "peers/peers.h"
#include "support/bench.h"
#include "support/crowd.h"
#include "tirn/jiffies.h"
#include "tirn/lock.h"
#include "tirn/thread.h"

namespace tirn::bench {
namespace {

template <class Lock>
struct alignas(64) Placed {
  Lock lock;
};

Placed<kesa_spinlock> spin{KESA_SPINLOCK_INIT};
Placed<kesa_tspinlock> ticket;
Placed<uint64_t> word;
Placed<kesa_trwlock> ticket_rw;
Placed<pthread_spinlock_t> posix_spin;
Placed<pthread_mutex_t> mutex{PTHREAD_MUTEX_INITIALIZER};
Placed<pthread_mutex_t> adaptive{PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP};
Placed<pthread_rwlock_t> posix_rwlock{PTHREAD_RWLOCK_INITIALIZER};

// The data that the lock guards, in a cache line of its own.
alignas(64) volatile uint64_t guarded[8];

void write() {
  guarded[0] = guarded[0] + 1;
  guarded[1] = guarded[1] + 1;
}

void read() { static_cast<void>(guarded[0]); }

// Registers the thread, so that its id is in its record. Other threads ask the kernel for it at each ticket.
void adopt() { kesa_thrd_setcurthreadinfo(); }

// What is measured of each lock: `alone`, one thread without work; `contended`, two threads; `crowded`, the time per
// operation with more threads than cores; `waited`, the longest time that a thread of such a crowd takes for
// kCrowdStint operations.
struct Lock {
  std::string name;
  Measure alone, contended, crowded, waited;
};

template <class Work, class Take, class Give>
Lock lock(const char* name, Work work, Take take, Give give) {
  const auto section = [=] {
    take();
    work();
    give();
  };
  return {name, one_thread([=] {
            take();
            give();
          }),
          two_threads([=](unsigned) { section(); }), of_crowd<&CrowdResult::per_operation>(adopt, section),
          of_crowd<&CrowdResult::longest_stint>(adopt, section)};
}

// Returns the peer's lock, or an empty list if its library is missing.
template <class Work>
std::vector<Lock> peer(const char* name, Work work) {
  const peer_lock* const found = peer_lock_named(name);
  if (found == nullptr) {
    return {};
  }
  return {lock(
      name, work, [lock = *found] { lock.take(lock.lock); }, [lock = *found] { lock.give(lock.lock); })};
}

std::vector<Lock> operator+(std::vector<Lock> locks, const std::vector<Lock>& more) {
  locks.insert(locks.end(), more.begin(), more.end());
  return locks;
}

Lock posix_reads() {
  return lock(
      "pthread_rwlock_t, read", read, [] { pthread_rwlock_rdlock(&posix_rwlock.lock); },
      [] { pthread_rwlock_unlock(&posix_rwlock.lock); });
}

Lock posix_writes() {
  return lock(
      "pthread_rwlock_t, write", write, [] { pthread_rwlock_wrlock(&posix_rwlock.lock); },
      [] { pthread_rwlock_unlock(&posix_rwlock.lock); });
}

template <pthread_mutex_t& kMutex>
Lock posix_mutex(const char* name) {
  return lock(
      name, write, [] { pthread_mutex_lock(&kMutex); }, [] { pthread_mutex_unlock(&kMutex); });
}

Lock posix_spinlock() {
  return lock(
      "pthread_spinlock_t", write, [] { pthread_spin_lock(&posix_spin.lock); },
      [] { pthread_spin_unlock(&posix_spin.lock); });
}

// A lock of ours beside its peers. A target of 0 means that there is none.
struct Contest {
  const char* name;
  double alone, contended;  // targets
  bool has_crowd;
  Lock ours;
  std::vector<Lock> peers;
  std::vector<Lock> shown = {};
};

std::vector<Contest> contests() {
  return {
      {"spin",
       1.05,
       1.0,
       true,
       lock(
           "kesa_spinlock", write, [] { kesa_spinlock_lock(&spin.lock); }, [] { kesa_spinlock_unlock(&spin.lock); }),
       {posix_spinlock()},
       peer("ck_spinlock_fas", write) + std::vector<Lock>{posix_mutex<mutex.lock>("pthread_mutex_t"),
                                                          posix_mutex<adaptive.lock>("pthread_mutex_t, adaptive")}},
      {"ticket",
       1.2,
       1.0,
       true,
       lock(
           "kesa_tspinlock", write, [] { kesa_tspinlock_lock(&ticket.lock); },
           [] { kesa_tspinlock_unlock(&ticket.lock); }),
       peer("ck_spinlock_ticket", write),
       {posix_spinlock()}},
      {"word_read", 1.05, 0, false,
       lock(
           "kesa_rwlock, read", read, [] { kesa_rwlock_read_lock(&word.lock); },
           [] { kesa_rwlock_read_unlock(&word.lock); }),
       peer("ck_rwlock, read", read) + std::vector<Lock>{posix_reads()} + peer("std::shared_mutex, shared", read)},
      {"word_write", 1.05, 0, true,
       lock(
           "kesa_rwlock, write", write, [] { kesa_rwlock_write_lock(&word.lock); },
           [] { kesa_rwlock_write_unlock(&word.lock); }),
       peer("ck_rwlock, write", write) + std::vector<Lock>{posix_writes()} +
           peer("std::shared_mutex, exclusive", write)},
      {"ticket_read",
       1.3,
       1.3,
       false,
       lock(
           "kesa_trwlock, read", read, [] { do_kesa_trwlock_read_lock(&ticket_rw.lock); },
           [] { do_kesa_trwlock_read_unlock(&ticket_rw.lock); }),
       peer("ck_tflock_ticket, read", read),
       {posix_reads()}},
      {"ticket_write",
       1.3,
       1.3,
       true,
       lock(
           "kesa_trwlock, write", write, [] { do_kesa_trwlock_write_lock(&ticket_rw.lock); },
           [] { do_kesa_trwlock_write_unlock(&ticket_rw.lock); }),
       peer("ck_tflock_ticket, write", write),
       {posix_writes()}},
  };
}

std::string set_up() {
  kesa_gettime_init();
  pthread_spin_init(&posix_spin.lock, PTHREAD_PROCESS_PRIVATE);
  kesa_tspinlock_init(&ticket.lock);
  adopt();
  return "";
}

// Starts a second thread, since some locks are cheaper in a process with only one.
std::string set_up_beside_a_sleeper() {
  std::thread([] { pause(); }).detach();
  return set_up();
}

std::string set_up_with_partner() {
  const std::function<void()> theirs = adopt;
  partner().start(theirs);
  partner().wait();
  return set_up();
}

std::vector<Row> rows(const std::vector<Lock>& locks, Measure Lock::*shape, uint64_t count) {
  std::vector<Row> rows;
  for (const Lock& lock : locks) {
    rows.push_back({lock.name, lock.*shape, count});
  }
  return rows;
}

Group group(const Contest& contest, const char* shape_name, Measure Lock::*shape, uint64_t count = 0) {
  return {.name = std::string("locks/") + contest.name + '/' + shape_name,
          .ours = {contest.ours.name, contest.ours.*shape, count},
          .peers = rows(contest.peers, shape, count),
          .shown = rows(contest.shown, shape, count)};
}

const Family locks{[] {
  std::vector<Group> groups;
  for (const Contest& contest : contests()) {
    Group alone = group(contest, "alone", &Lock::alone);
    alone.target = contest.alone;
    alone.set_up = set_up_beside_a_sleeper;
    groups.push_back(alone);

    Group contended = group(contest, "two_threads", &Lock::contended);
    contended.target = contest.contended;
    contended.cores = 2;
    contended.set_up = set_up_with_partner;
    groups.push_back(contended);

    if (contest.has_crowd) {
      Group crowded = group(contest, "four_threads", &Lock::crowded, 1);
      crowded.cores = 2;
      crowded.set_up = set_up;
      groups.push_back(crowded);

      Group waited = group(contest, "four_threads_longest_wait", &Lock::waited, 1);
      waited.unit = kMilliseconds;
      waited.cores = 2;
      waited.set_up = set_up;
      groups.push_back(waited);
    }
  }
  return groups;
}};

}  // namespace
}  // namespace tirn::bench
