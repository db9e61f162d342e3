// Takes and gives the locks of other libraries.
#include <pthread.h>

#include <cstring>
#include <iterator>
#include <shared_mutex>

#include "peers/peers.h"

#ifdef PEERS_CK
// ck_spinlock.h is not valid C++, so include the parts.
#include <ck_rwlock.h>
#include <ck_tflock.h>
#include <spinlock/fas.h>
#include <spinlock/ticket.h>
#endif

namespace {

// A lock in a cache line of its own.
template <class Lock>
struct alignas(64) Placed {
  Lock lock;
};

template <class Lock, void (*operate)(Lock*)>
void call(void* lock) {
  operate(static_cast<Lock*>(lock));
}

Placed<std::shared_mutex> shared_mutex;

void take_shared(std::shared_mutex* lock) { lock->lock_shared(); }
void give_shared(std::shared_mutex* lock) { lock->unlock_shared(); }
void take_exclusive(std::shared_mutex* lock) { lock->lock(); }
void give_exclusive(std::shared_mutex* lock) { lock->unlock(); }

#ifdef PEERS_CK
Placed<ck_spinlock_fas_t> fas;
Placed<ck_spinlock_ticket_t> ticket;
Placed<ck_rwlock_t> rwlock;
Placed<ck_tflock_ticket_t> tflock;
#endif

const peer_lock locks[] = {
    {"std::shared_mutex, shared", &shared_mutex, call<std::shared_mutex, take_shared>,
     call<std::shared_mutex, give_shared>},
    {"std::shared_mutex, exclusive", &shared_mutex, call<std::shared_mutex, take_exclusive>,
     call<std::shared_mutex, give_exclusive>},
#ifdef PEERS_CK
    {"ck_spinlock_fas", &fas, call<ck_spinlock_fas_t, ck_spinlock_fas_lock>,
     call<ck_spinlock_fas_t, ck_spinlock_fas_unlock>},
    {"ck_spinlock_ticket", &ticket, call<ck_spinlock_ticket_t, ck_spinlock_ticket_lock>,
     call<ck_spinlock_ticket_t, ck_spinlock_ticket_unlock>},
    {"ck_rwlock, read", &rwlock, call<ck_rwlock_t, ck_rwlock_read_lock>, call<ck_rwlock_t, ck_rwlock_read_unlock>},
    {"ck_rwlock, write", &rwlock, call<ck_rwlock_t, ck_rwlock_write_lock>, call<ck_rwlock_t, ck_rwlock_write_unlock>},
    {"ck_tflock_ticket, read", &tflock, call<ck_tflock_ticket_t, ck_tflock_ticket_read_lock>,
     call<ck_tflock_ticket_t, ck_tflock_ticket_read_unlock>},
    {"ck_tflock_ticket, write", &tflock, call<ck_tflock_ticket_t, ck_tflock_ticket_write_lock>,
     call<ck_tflock_ticket_t, ck_tflock_ticket_write_unlock>},
#endif
};

}  // namespace

const peer_lock* peer_lock_named(const char* name) {
  for (const peer_lock& lock : locks) {
    if (std::strcmp(lock.name, name) == 0) {
      return &lock;
    }
  }
  return nullptr;
}
