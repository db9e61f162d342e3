// The table of threads: slots with counted references, and the records that stay with them.
#ifndef TIRN_THREAD_THRD_TABLE_H
#define TIRN_THREAD_THRD_TABLE_H

#include <atomic>

#include "tirn/thread.h"

namespace tirn::thread {

extern ThreadSlot g_slots[KESA_THREAD_SLOTS];

inline std::atomic_ref<uint32_t> state_of(ThreadSlot& slot) { return std::atomic_ref(slot.state); }

// Gives a reference to a slot that has one: true.
bool add_reference(ThreadSlot& slot);
void drop_reference(ThreadSlot& slot);

// Released, so that whoever finds the state sees the record as it was at this change.
void set_state(kesa_thread_s& record, thrd_slot_state state);

// A record for a new thread, with one reference; nullptr after its line in the log.
kesa_thread_s* take_record(kesa_thread_fn fn, void* arg);
// The same, from the table only: nullptr, without a line, where that is full.
kesa_thread_s* take_table_record(kesa_thread_fn fn, void* arg);

// The record's thread runs, under this kernel id.
void set_tid(kesa_thread_s& record, uint32_t tid);

// The slot's record, if it is in one of `states` and `is_wanted` holds, with a reference that the caller has to drop;
// else nullptr. `is_wanted` is called while a reference is held: the record stays, but its thread goes on.
template <typename IsWanted>
kesa_thread_s* hold_record(ThreadSlot& slot, uint32_t states, IsWanted is_wanted) {
  if ((state_of(slot).load(std::memory_order_relaxed) & states) == 0 || !add_reference(slot)) {
    return nullptr;
  }
  // Asked again, as the slot may have changed hands before the reference was taken.
  if ((state_of(slot).load(std::memory_order_acquire) & states) != 0 && is_wanted(*slot.info)) {
    return slot.info;
  }
  drop_reference(slot);
  return nullptr;
}

// The first such record of the table.
template <typename IsWanted>
kesa_thread_s* find_record(uint32_t states, IsWanted is_wanted) {
  for (ThreadSlot& slot : g_slots) {
    if (kesa_thread_s* const record = hold_record(slot, states, is_wanted); record != nullptr) {
      return record;
    }
  }
  return nullptr;
}

}  // namespace tirn::thread

#endif
