// Holds cancellation off in the stand-in's exported functions: a cancelled thread would leave files open and locks
// held.
#ifndef ZUT_UNCANCELLED_H
#define ZUT_UNCANCELLED_H

#include <pthread.h>

namespace zut {

class Uncancelled {
 public:
  Uncancelled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former_); }
  Uncancelled(const Uncancelled&) = delete;
  Uncancelled& operator=(const Uncancelled&) = delete;
  ~Uncancelled() { pthread_setcancelstate(former_, nullptr); }

 private:
  int former_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace zut

#endif
