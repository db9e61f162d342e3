// Holding cancellation off.
//
// The library is built without unwinding, so a cancelled thread runs no guard: what it holds stays held. Therefore a
// function holds cancellation off while anything is open, locked, referenced or linked. Functions that sleep by nature
// are cancellation points where they hold nothing, and their headers say so.
#ifndef TIRN_BASE_CANCELLATION_H
#define TIRN_BASE_CANCELLATION_H

#include <pthread.h>

namespace tirn {

// The thread cannot be cancelled in this scope; a cancellation that is sent meanwhile stays pending. Changes no errno.
class NoCancellation {
 public:
  NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former_); }
  NoCancellation(const NoCancellation&) = delete;
  NoCancellation& operator=(const NoCancellation&) = delete;
  ~NoCancellation() { pthread_setcancelstate(former_, nullptr); }

 private:
  int former_ = PTHREAD_CANCEL_ENABLE;
};

// Runs `body`, then `give_back`, which also runs where the thread ends inside of `body`: cancelled in a sleep that its
// caller asked for, or by pthread_exit in a caller's function.
template <typename Body, typename GiveBack>
void run_with_cleanup(Body body, GiveBack give_back) {
  pthread_cleanup_push([](void* argument) { (*static_cast<GiveBack*>(argument))(); }, &give_back);
  body();
  pthread_cleanup_pop(1);
}

}  // namespace tirn

#endif
