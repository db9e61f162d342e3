// The table of threads: slots with counted references, and the records that stay with them.
#ifndef TIRN_THREAD_THRD_TABLE_H
#define TIRN_THREAD_THRD_TABLE_H

#include <atomic>
#include <memory>
#include <utility>

#include "tirn/thread.h"

namespace tirn::thread {

extern ThreadSlot g_slots[KESA_THREAD_SLOTS];

inline std::atomic_ref<uint32_t> state_of(ThreadSlot& slot) { return std::atomic_ref(slot.state); }

// Takes another reference if the slot already has one; returns whether it did.
bool add_reference(ThreadSlot& slot);
void drop_reference(ThreadSlot& slot);

// Stores the state with release, so that a thread that finds this state sees the record as it was at the change.
void set_state(kesa_thread_s& record, thrd_slot_state state);

// Returns a record for a new thread, with one reference; nullptr, after a log line, if there is no memory.
kesa_thread_s* take_record(kesa_thread_fn fn, void* arg);
// Does the same, but from the table only: if the table is full, it returns nullptr without a log line.
kesa_thread_s* take_table_record(kesa_thread_fn fn, void* arg);

// Stores the kernel id of the record's thread, also for searches of the table.
void set_tid(kesa_thread_s& record, uint32_t tid);

// A reference to a record of the table. The slot gets no next owner before the reference is dropped.
struct DropReference {
  void operator()(kesa_thread_s* record) const { drop_reference(*record->slot); }
};
using HeldRecord = std::unique_ptr<kesa_thread_s, DropReference>;

inline bool is_any(const kesa_thread_s&) { return true; }

// Returns the slot's record if the slot is in one of `states` and `is_wanted` holds, else an empty pointer. While
// `is_wanted` runs, the record is kept, but its thread goes on.
template <typename IsWanted>
HeldRecord hold_record(ThreadSlot& slot, uint32_t states, IsWanted is_wanted) {
  if ((state_of(slot).load(std::memory_order_relaxed) & states) == 0 || !add_reference(slot)) {
    return {};
  }
  // Test the state again: the slot may have got a new owner before the reference was taken. Until a state is seen, a
  // slot that is new may not show its record.
  if ((state_of(slot).load(std::memory_order_acquire) & states) != 0) {
    HeldRecord record(slot.info);
    return is_wanted(*record) ? std::move(record) : HeldRecord();
  }
  drop_reference(slot);
  return {};
}

// Returns the first such record of the table, or an empty pointer.
template <typename IsWanted>
HeldRecord find_record(uint32_t states, IsWanted is_wanted) {
  for (ThreadSlot& slot : g_slots) {
    if (HeldRecord record = hold_record(slot, states, is_wanted); record != nullptr) {
      return record;
    }
  }
  return {};
}

// Calls `act` with each record whose slot is in one of `states`.
template <typename Act>
void for_each_record(uint32_t states, Act act) {
  for (ThreadSlot& slot : g_slots) {
    if (HeldRecord record = hold_record(slot, states, is_any); record != nullptr) {
      act(std::move(record));
    }
  }
}

}  // namespace tirn::thread

#endif
