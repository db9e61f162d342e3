// The circular intrusive list of kernel style, and the checks of a link against its neighbours.
#ifndef TIRN_BASE_LIST_H
#define TIRN_BASE_LIST_H

#include <atomic>

#include "libtirn/base/log.h"
#include "tirn/base.h"

namespace tirn::list {

using Link = kesa_list_head;

// A link as %p takes it.
inline const void* shown(const Link* link) { return link; }

inline void init(Link* head) {
  head->next = head;
  head->prev = head;
}

inline bool is_empty(const Link* head) { return head->next == head; }

// Relaxed: is_detached may look at a link while its neighbours change.
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

// Takes a link off its list and links it to itself. Release: whoever sees that by is_detached, without the list's lock,
// may give the link's memory up.
inline void detach(Link* link) {
  set(link->next->prev, link->prev);
  set(link->prev->next, link->next);
  set(link->prev, link);
  std::atomic_ref(link->next).store(link, std::memory_order_release);
}

inline bool is_detached(Link* link) { return std::atomic_ref(link->next).load(std::memory_order_acquire) == link; }

// The checks (internal to each file, whose name their lines bear) of a link that is about to be relinked. Lines bear `function`, the name of whoever relinks;
// `print_element(link)` shows the element of each link concerned. Nothing is repaired, and the caller goes on.
template <typename PrintElement>
static void check_links(const Link* cur, const char* function, PrintElement print_element) {
  const Link* const prev = cur->prev;
  const Link* const next = cur->next;
  if (prev == nullptr || prev == KESA_LIST_POISON_PREV) {
    TIRN_LOG_AS(kModule, kInfo, function, "List node prev:(%p), cur:(%p)", shown(prev), shown(cur));
  } else if (prev->next != cur) {
    TIRN_LOG_AS(kModule, kError, function, "Abnormal list node prev:%p(%p,%p) is not point to cur:%p(%p,%p)",
                shown(prev), shown(prev->next), shown(prev->prev), shown(cur), shown(next), shown(prev));
    print_element(prev);
    print_element(cur);
  }
  if (next != nullptr && next != KESA_LIST_POISON_NEXT && next->prev != cur) {
    TIRN_LOG_AS(kModule, kError, function, "Abnormal list node next:%p(%p,%p) is not point to cur:%p(%p,%p)",
                shown(next), shown(next->next), shown(next->prev), shown(cur), shown(next), shown(prev));
    print_element(next);
    print_element(cur);
  }
}

// The check of a walk that came to `cur` from `last`.
template <typename PrintElement>
static void check_step(const Link* cur, const Link* last, const char* function, PrintElement print_element) {
  if (cur->prev != last) {
    TIRN_LOG_AS(kModule, kError, function, "Abnormal list node cur:%p(%p,%p), is not point to last:%p", shown(cur),
                shown(cur->next), shown(cur->prev), shown(last));
    print_element(last);
    print_element(cur);
  }
}

}  // namespace tirn::list

#endif
