// Checks lists whose nodes are the callers' memory.
#include "libtirn/base/list_check.h"

#include "libtirn/base/log.h"

namespace tirn::list {
namespace {

void show_both(const Link* one, const Link* other, const Reporter& reporter) {
  for (const Link* const node : {one, other}) {
    if (leads_somewhere(node)) {
      reporter.show(node);
    }
  }
}

Link links_of(const Link* node) { return leads_somewhere(node) ? *node : Link{nullptr, nullptr}; }

}  // namespace

void check(const Link* cur, const Reporter& reporter, const Link* last) {
  const char* const function = reporter.function;
  const Link prev = links_of(cur->prev);
  const Link next = links_of(cur->next);
  if (!leads_somewhere(cur->prev)) [[unlikely]] {
    TIRN_INFO_AS(function, "List node prev:(%p), cur:(%p)", static_cast<void*>(cur->prev),
                 static_cast<const void*>(cur));
  } else if (prev.next != cur) [[unlikely]] {
    TIRN_ERROR_AS(function, "Abnormal list node prev:%p(%p,%p) is not point to cur:%p(%p,%p)",
                  static_cast<void*>(cur->prev), static_cast<void*>(prev.next), static_cast<void*>(prev.prev),
                  static_cast<const void*>(cur), static_cast<void*>(cur->next), static_cast<void*>(cur->prev));
    show_both(cur->prev, cur, reporter);
  }
  if (next.prev != cur) [[unlikely]] {
    TIRN_ERROR_AS(function, "Abnormal list node next:%p(%p,%p) is not point to cur:%p(%p,%p)",
                  static_cast<void*>(cur->next), static_cast<void*>(next.next), static_cast<void*>(next.prev),
                  static_cast<const void*>(cur), static_cast<void*>(cur->next), static_cast<void*>(cur->prev));
    show_both(cur->next, cur, reporter);
  }
  if (last != nullptr && cur->prev != last) [[unlikely]] {
    TIRN_ERROR_AS(function, "Abnormal list node cur:%p(%p,%p), is not point to last:%p",
                  static_cast<const void*>(cur), static_cast<void*>(cur->next), static_cast<void*>(cur->prev),
                  static_cast<const void*>(last));
    show_both(cur, last, reporter);
  }
}

void unlink(const Link* cur) {
  Link* const next = cur->next;
  Link* const prev = cur->prev;
  if (leads_somewhere(next)) {
    set(next->prev, prev);
  }
  if (leads_somewhere(prev)) {
    set(prev->next, next);
  }
}

void append(Link* head, Link* node) {
  if (head->next == nullptr) [[unlikely]] {
    init(head);
  }
  if (leads_somewhere(head->prev)) [[likely]] {
    push_back(head, node);
  } else {
    push_front(head, node);
  }
}

void move_all(Link* from, Link* to) {
  init(to);
  if (!is_empty(from)) {
    if (leads_somewhere(from->next)) {
      to->next = from->next;
      set(to->next->prev, to);
    }
    if (leads_somewhere(from->prev)) {
      to->prev = from->prev;
      set(to->prev->next, to);
    }
  }
  init(from);
}

void step_over(Link* head, const Link* first, Link* next) {
  if (head->next != first && leads_somewhere(head->next)) [[likely]] {
    return;
  }
  if (leads_somewhere(next) && next != first) {
    set(head->next, next);
  } else {
    set(head->next, head);
    set(head->prev, head);
  }
}

}  // namespace tirn::list
