// Holds cancellation off while a function owns something.
//
// The library is built without unwinding, so a cancelled thread runs no destructors: what it holds stays held.
// Therefore a function holds cancellation off while anything is open, locked, referenced or linked. Functions whose
// purpose is to sleep are cancellation points. They hold nothing then, or give it back through run_with_cleanup, and
// their public headers say so.
#ifndef TIRN_BASE_CANCELLATION_H
#define TIRN_BASE_CANCELLATION_H

#include <pthread.h>

namespace tirn {

// Keeps the thread from being cancelled in this scope. A cancellation that is sent meanwhile stays pending. Does not
// change errno.
class NoCancellation {
 public:
  NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former_); }
  NoCancellation(const NoCancellation&) = delete;
  NoCancellation& operator=(const NoCancellation&) = delete;
  ~NoCancellation() { pthread_setcancelstate(former_, nullptr); }

 private:
  int former_ = PTHREAD_CANCEL_ENABLE;
};

// Runs `body`, then `give_back`. `give_back` also runs if the thread ends inside `body`: it may be cancelled in a
// sleep that the caller asked for, or a function of the caller may call pthread_exit.
template <typename Body, typename GiveBack>
void run_with_cleanup(Body body, GiveBack give_back) {
  pthread_cleanup_push([](void* argument) { (*static_cast<GiveBack*>(argument))(); }, &give_back);
  body();
  pthread_cleanup_pop(1);
}

}  // namespace tirn

#endif
