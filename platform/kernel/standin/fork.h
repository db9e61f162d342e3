// What forked children renew.
#ifndef ZUT_FORK_H
#define ZUT_FORK_H

#include <cstdint>

namespace zut {

// Tells this process from those that it was forked from, by more than the process id: that may come back once its owner
// has ended, or in a namespace of its own. Never 0.
uint32_t this_process();

// To be called before there is something to renew in a child. Without the memory for it children are told from their
// parents by process id alone, and go without the thread until they look for the device themselves.
void follow_forks();

}  // namespace zut

#endif
