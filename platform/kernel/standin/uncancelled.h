// The stand-in's doors hold cancellation off: what they open would stay open, and what they lock stay locked.
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
