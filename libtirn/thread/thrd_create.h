// The attributes of threads with a small stack, for single threads and for the pool.
#ifndef TIRN_THREAD_THRD_CREATE_H
#define TIRN_THREAD_THRD_CREATE_H

#include "tirn/thread.h"

namespace tirn::thread {

// Initialises attributes for threads with the small stack. Returns 0, or the error; after an error there is nothing
// to destroy.
int init_small_stack(pthread_attr_t* attributes);

}  // namespace tirn::thread

#endif
