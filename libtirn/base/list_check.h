// Checks lists whose nodes are the callers' memory. A node that was freed or overwritten while it was on a list is
// logged before the list is used further, which may crash the process. Nothing is repaired.
#ifndef TIRN_BASE_LIST_CHECK_H
#define TIRN_BASE_LIST_CHECK_H

#include "libtirn/base/list.h"

namespace tirn::list {

// Under which function's name a check logs, and what prints a node.
struct Reporter {
  const char* function;
  void (*show)(const Link* node);
};

// Returns whether there can be a node at this address.
inline bool leads_somewhere(const Link* link) {
  return link != nullptr && link != KESA_LIST_POISON_NEXT && link != KESA_LIST_POISON_PREV;
}

// Logs where the neighbours of `cur` do not point back at it and, in a walk, where the node before it is not `last`.
void check(const Link* cur, const Reporter& reporter, const Link* last = nullptr);

// Links the neighbours of `cur` to each other, as its pointers stand. A neighbour that cannot exist is left out. The
// links of `cur` itself do not change.
void unlink(const Link* cur);

// Puts a node at the end of a list; at the front if the head's `prev` leads nowhere. A zeroed head is an empty list.
void append(Link* head, Link* node);

// Moves the nodes of `from` to `to`, whose former content does not matter.
void move_all(Link* from, Link* to);

// Called after unlink of the first node of a list. If the node's pointers did not lead back to the head, goes on with
// its former `next`; if that leads nowhere, the rest of the list is given up.
void step_over(Link* head, const Link* first, Link* next);

}  // namespace tirn::list

#endif
