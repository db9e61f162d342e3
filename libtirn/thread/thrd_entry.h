// The steps of a thread before and after its user function.
#ifndef TIRN_THREAD_THRD_ENTRY_H
#define TIRN_THREAD_THRD_ENTRY_H

#include "tirn/thread.h"

namespace tirn::thread {

// Makes the record the calling thread's: stores the kernel id and the stack bounds, and installs the signal stack.
void begin_thread(kesa_thread_s& record);
// Ends the calling thread for lookups, removes its signal stack and drops the reference to its record.
void end_thread(kesa_thread_s* record);
// Does the same for the record that the calling thread has at that time, if it has one. The user function may have
// given back the record that the thread began with, and may have taken another.
void end_current();

inline void apply_default_strategy() { kesa_setCurThreadStrategy(KESA_STRATEGY_DEFAULT); }

// Entry functions for pthread_create. The argument is the thread's record.
void* default_entry(void* argument);
void* plain_entry(void* argument);  // applies no strategy

}  // namespace tirn::thread

#endif
