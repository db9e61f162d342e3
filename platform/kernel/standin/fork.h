// Distinguishes forked children from their parents, and restarts the stand-in's thread in them.
#ifndef ZUT_FORK_H
#define ZUT_FORK_H

#include <cstdint>

namespace zut {

// Returns a number, never 0, that this process does not share with those that it was forked from. The process id
// alone would not do: it may be reused once its owner has ended, or in another process namespace.
uint32_t this_process();

// Installs the fork handler; has to be called before there is anything to renew in a child. If there is no memory for
// the handler, children differ from their parents by process id alone, and have no thread until they look for the
// device themselves.
void follow_forks();

}  // namespace zut

#endif
