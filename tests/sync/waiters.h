// Lets tests look at the threads that wait for a semaphore.
#ifndef TIRN_TEST_WAITERS_H
#define TIRN_TEST_WAITERS_H

#include "tirn/semaphore.h"

namespace tirn::test {

// The record of a waiter, as the library keeps it on the stack of the waiting thread.
struct GhostWaiter {
  kesa_list_head link;
  uint32_t tid;
  uint32_t state;
};

// Returns the id of the thread that is served next, or 0 if none waits.
inline uint32_t oldest_waiter_of(kesa_sem_enhance& sem) {
  kesa_spinlock_lock(&sem.lock);
  const kesa_list_head* const link = sem.waiters.next;
  const uint32_t tid = link != &sem.waiters ? reinterpret_cast<const GhostWaiter*>(link)->tid : 0;
  kesa_spinlock_unlock(&sem.lock);
  return tid;
}

}  // namespace tirn::test

#endif
