// A circular intrusive list in the style of the kernel.
#ifndef TIRN_BASE_LIST_H
#define TIRN_BASE_LIST_H

#include <atomic>

#include "tirn/base.h"

namespace tirn::list {

using Link = kesa_list_head;

inline void init(Link* head) {
  head->next = head;
  head->prev = head;
}

inline bool is_empty(const Link* head) { return head->next == head; }

// A relaxed atomic store: is_detached may read a link while its neighbours on the list change.
inline void set(Link*& place, Link* link) { std::atomic_ref(place).store(link, std::memory_order_relaxed); }

inline void insert_between(Link* link, Link* prev, Link* next) {
  set(next->prev, link);
  set(link->next, next);
  set(link->prev, prev);
  set(prev->next, link);
}

inline void push_front(Link* head, Link* link) { insert_between(link, head, head->next); }
inline void push_back(Link* head, Link* link) { insert_between(link, head->prev, head); }

// Takes a link off its list and poisons it.
inline void remove(Link* link) {
  link->next->prev = link->prev;
  link->prev->next = link->next;
  link->next = KESA_LIST_POISON_NEXT;
  link->prev = KESA_LIST_POISON_PREV;
}

// Takes a link off its list and links it to itself. The release pairs with the acquire in is_detached: a thread that
// sees the link detached, without the list's lock, may free its memory.
inline void detach(Link* link) {
  set(link->next->prev, link->prev);
  set(link->prev->next, link->next);
  set(link->prev, link);
  std::atomic_ref(link->next).store(link, std::memory_order_release);
}

// Returns whether init or detach has linked `link` to itself. One load is enough, since detach stores `next` last.
inline bool is_detached(Link* link) { return std::atomic_ref(link->next).load(std::memory_order_acquire) == link; }

}  // namespace tirn::list

#endif
