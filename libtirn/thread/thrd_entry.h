// What a thread does for itself between its start and its user function, and from there to its end.
#ifndef TIRN_THREAD_THRD_ENTRY_H
#define TIRN_THREAD_THRD_ENTRY_H

#include "tirn/thread.h"

namespace tirn::thread {

// The record becomes the calling thread's: kernel id, stack bounds, signal stack.
void begin_thread(kesa_thread_s& record);
// The thread cannot be found any more, and its record goes.
void end_thread(kesa_thread_s* record);
// The same for whatever record the calling thread has by then: its function may have given back the one that it began
// with, and may have got another.
void end_current();

inline void apply_default_strategy() { kesa_setCurThreadStrategy(KESA_STRATEGY_DEFAULT); }

// Entries for pthread_create, with the thread's record as argument.
void* default_entry(void* argument);
void* plain_entry(void* argument);  // takes no strategy

}  // namespace tirn::thread

#endif
