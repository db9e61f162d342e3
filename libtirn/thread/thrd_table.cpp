// The table of threads: claiming slots, their references, and their records.
#include "libtirn/thread/thrd_table.h"

#include <unistd.h>

#include <cerrno>
#include <new>

#include "libtirn/base/bounds.h"
#include "libtirn/base/fork.h"
#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"

using namespace tirn;
using namespace tirn::thread;

namespace tirn::thread {

constinit ThreadSlot g_slots[KESA_THREAD_SLOTS]{};

namespace {

// The kernel ids of the slots' latest threads. A search reads these few cache lines instead of each thread's record.
// They are hints and therefore relaxed: a match is checked in the record.
constinit std::atomic<uint32_t> g_tids[KESA_THREAD_SLOTS]{};

constexpr char kNoName[] = "[NULL]";

std::atomic_ref<uint32_t> refs_of(ThreadSlot& slot) { return std::atomic_ref(slot.refs); }

// Only the calling thread exists in a forked child. The slots of other threads become free, except those on which a
// lookup holds a reference as well (it may be the calling thread's), and those in THRD_SLOT_TAKEN: the calling thread
// may run in one of them by an entry of its own.
void keep_own_record(ForkSteps&) {
  for (ThreadSlot& slot : g_slots) {
    if (m_current_thread != nullptr && m_current_thread->slot == &slot) {
      continue;
    }
    if ((state_of(slot).load(std::memory_order_relaxed) & (THRD_SLOT_ALIVE | THRD_SLOT_DEAD)) != 0) {
      state_of(slot).store(THRD_SLOT_DEAD, std::memory_order_relaxed);
      uint32_t only_its_own = 1;
      refs_of(slot).compare_exchange_strong(only_its_own, 0, std::memory_order_relaxed);
    }
  }
  if (m_current_thread != nullptr) {
    m_current_thread->pid = getpid();
    set_tid(*m_current_thread, static_cast<uint32_t>(gettid()));
  }
}
constinit ForkSteps g_fork_steps(keep_own_record);

ThreadSlot* claim_slot() {
  for (ThreadSlot& slot : g_slots) {
    uint32_t free = 0;
    if (refs_of(slot).load(std::memory_order_relaxed) == 0 &&
        refs_of(slot).compare_exchange_strong(free, 1, std::memory_order_acquire, std::memory_order_relaxed)) {
      state_of(slot).store(THRD_SLOT_TAKEN, std::memory_order_relaxed);
      return &slot;
    }
  }
  return nullptr;
}

kesa_thread_s* allocate_record() {
  auto stack = tagged_block<uint8_t>(KESA_THREAD_SIGNAL_STACK);
  if (stack == nullptr) {
    TIRN_ERROR_AS("kesa_thrd_allocthreadinfo", "Kesa_malloc sig stack for kesa_thread_s failed, errno=%d.", errno);
    return nullptr;
  }
  auto block = tagged_block<kesa_thread_s>();
  if (block == nullptr) {
    return TIRN_ERROR_AS("kesa_thrd_allocthreadinfo", "Kesa_malloc kesa_thread_s failed, errno=%d.", errno), nullptr;
  }
  kesa_thread_s* const record = block.release();
  *record = {};
  record->signal_stack = stack.release();
  return record;
}

void free_record(kesa_thread_s* record) {
  kesa_free(record->signal_stack);
  kesa_free(record);
}

// Sets up the record for a new thread. The old switch records stay: `switch_count` decides how many are valid.
kesa_thread_s* set_up(kesa_thread_s* record, kesa_thread_fn fn, void* arg) {
  record->fn = fn;
  record->arg = arg;
  strcpy_s(record->name, sizeof record->name, kNoName);
  record->tid = 0;
  record->pid = getpid();
  record->strategy = -1;
  record->context = KESA_THREAD_CONTEXT_NONE;
  record->iod_id = KESA_THREAD_NO_IOD_ID;
  record->stack_low = 0;
  record->stack_high = 0;
  sem_init(&record->wake, 0, 0);
  record->switch_count = 0;
  return record;
}

// Claims a free slot and returns its record, which is allocated now if the slot has none. Returns nullptr if no slot
// is free or the allocation fails.
kesa_thread_s* claim_record() {
  ThreadSlot* const slot = claim_slot();
  if (slot == nullptr) {
    return nullptr;
  }
  if (slot->info == nullptr) {
    kesa_thread_s* const record = allocate_record();
    if (record == nullptr) {
      drop_reference(*slot);
      return nullptr;
    }
    record->slot = slot;
    slot->info = record;
  }
  return slot->info;
}

}  // namespace

bool add_reference(ThreadSlot& slot) {
  uint32_t refs = refs_of(slot).load(std::memory_order_relaxed);
  while (refs != 0) {
    // Acquire: the state that is read next is not older than the last one of the slot's former owner.
    if (refs_of(slot).compare_exchange_weak(refs, refs + 1, std::memory_order_acquire, std::memory_order_relaxed)) {
      return true;
    }
  }
  return false;
}

// The release pairs with the acquires in claim_slot and add_reference: the next owner of the slot gets the record
// only after all accesses of the former ones.
void drop_reference(ThreadSlot& slot) { refs_of(slot).fetch_sub(1, std::memory_order_release); }

void set_state(kesa_thread_s& record, thrd_slot_state state) {
  if (record.slot != nullptr) {
    state_of(*record.slot).store(state, std::memory_order_release);  // pairs with the acquire in hold_record
  }
}

void set_tid(kesa_thread_s& record, uint32_t tid) {
  record.tid = tid;
  if (record.slot != nullptr) {
    g_tids[record.slot - g_slots].store(tid, std::memory_order_relaxed);
  }
}

kesa_thread_s* take_table_record(kesa_thread_fn fn, void* arg) {
  g_fork_steps.follow();
  kesa_thread_s* const record = claim_record();
  return record != nullptr ? set_up(record, fn, arg) : nullptr;
}

kesa_thread_s* take_record(kesa_thread_fn fn, void* arg) {
  kesa_thread_s* record = take_table_record(fn, arg);
  if (record == nullptr) {
    record = allocate_record();
    return record != nullptr ? set_up(record, fn, arg) : nullptr;
  }
  return record;
}

}  // namespace tirn::thread

kesa_thread_s* kesa_thrd_getthreadinfobytid(uint32_t tid) {
  for (size_t i = 0; i < KESA_THREAD_SLOTS; ++i) {
    if (g_tids[i].load(std::memory_order_relaxed) != tid) {
      continue;
    }
    HeldRecord record = hold_record(g_slots[i], THRD_SLOT_ALIVE,
                                    [tid](const kesa_thread_s& candidate) { return candidate.tid == tid; });
    if (record != nullptr) {
      return record.release();
    }
  }
  return nullptr;
}

void kesa_thrd_putthreadinfo(kesa_thread_s* record) {
  if (record == nullptr) {
    return;
  }
  if (record->slot != nullptr) {
    thread::drop_reference(*record->slot);
  } else {
    thread::free_record(record);
  }
}

namespace {

// What the list shows of a thread. The thread itself may change its name and strategy meanwhile.
struct Shown {
  uint32_t tid;
  char name[KESA_THREAD_NAME_SIZE];
  int32_t strategy;
};

Shown shown_of(kesa_thread_s& record) {
  Shown shown{};
  shown.tid = record.tid;
  for (size_t i = 0; i < sizeof shown.name; ++i) {
    shown.name[i] = std::atomic_ref(record.name[i]).load(std::memory_order_relaxed);
  }
  shown.strategy = std::atomic_ref(record.strategy).load(std::memory_order_relaxed);
  return shown;
}

}  // namespace

void kesa_thrd_list(kesa_print_fn print, uint64_t, uint64_t, uint64_t, uint64_t) {
  if (print == nullptr) {
    return;
  }
  print("list threads flag(0:preempt 1:nonpreempt) created by kesa:\n");
  print("%-5s %-18s %-11s %-8s\n", "tid", "name", "preemptflag", "strategy");
  for_each_record(THRD_SLOT_ALIVE, [print](HeldRecord record) {
    const Shown shown = shown_of(*record);
    record.reset();  // before `print`, in which the calling thread may end
    print("%5lu %-18s %-11d %-8d\n", static_cast<unsigned long>(shown.tid), shown.name, 0, shown.strategy);
  });
}
