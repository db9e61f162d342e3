// What tests see of a semaphore's waiters.
#ifndef TIRN_TEST_WAITERS_H
#define TIRN_TEST_WAITERS_H

#include "tirn/semaphore.h"

namespace tirn::test {

// A waiter's record as it lies on its thread's stack.
struct GhostWaiter {
  kesa_list_head link;
  uint32_t tid;
  uint32_t state;
};

// The thread that is served next; 0 where none waits.
inline uint32_t oldest_waiter_of(kesa_sem_enhance& sem) {
  kesa_spinlock_lock(&sem.lock);
  const kesa_list_head* const link = sem.waiters.next;
  const uint32_t tid = link != &sem.waiters ? reinterpret_cast<const GhostWaiter*>(link)->tid : 0;
  kesa_spinlock_unlock(&sem.lock);
  return tid;
}

}  // namespace tirn::test

#endif
