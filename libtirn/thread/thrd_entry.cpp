// The steps of a thread before and after its user function.
#include "libtirn/thread/thrd_entry.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "libtirn/base/bounds.h"
#include "libtirn/base/cancellation.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/thread/thrd_table.h"

using namespace tirn;
using namespace tirn::thread;

namespace tirn::thread {
namespace {

// Records the bounds of the stack, without its guard area. If they cannot be read, the thread runs all the same.
void record_os_stack(kesa_thread_s& record) {
  pthread_attr_t attributes;
  int result = pthread_getattr_np(pthread_self(), &attributes);
  if (result != 0) {
    return TIRN_INFO_AS("record_os_stack", "Get thread attr ret:%d.", result);
  }
  size_t guard = 0;
  if (pthread_attr_getguardsize(&attributes, &guard) != 0) {
    guard = 0;
  }
  void* address = nullptr;
  size_t size = 0;
  result = pthread_attr_getstack(&attributes, &address, &size);
  if (result != 0) {
    TIRN_INFO_AS("record_os_stack", "Get os stack ret:%d.", result);
  } else {
    record.stack_low = reinterpret_cast<uintptr_t>(address) + guard;
    record.stack_high = reinterpret_cast<uintptr_t>(address) + size;
  }
  pthread_attr_destroy(&attributes);
}

void set_signal_stack(kesa_thread_s& record) {
  memset_s(record.signal_stack, KESA_THREAD_SIGNAL_STACK, 0, KESA_THREAD_SIGNAL_STACK);
  stack_t stack{};
  stack.ss_sp = record.signal_stack;
  stack.ss_size = KESA_THREAD_SIGNAL_STACK;
  stack.ss_flags = SS_ONSTACK;
  if (sigaltstack(&stack, nullptr) != 0) {
    TIRN_WARNING_AS("set_signal_stack", "Set thrd tid:%d sigaltstack fail.", static_cast<int>(record.tid));
  }
}

void unset_signal_stack(const kesa_thread_s& record) {
  stack_t stack{};
  stack.ss_flags = SS_DISABLE;
  if (sigaltstack(&stack, nullptr) != 0) {
    TIRN_WARNING_AS("kesa_thrd_unsetsigstack", "Disable signal stack failed, thrd tid:%d, errno:%d.",
                    static_cast<int>(record.tid), errno);
  }
}

// Runs the user function and then ends the thread, also if the function ends the thread itself. The thread can be
// cancelled in the user function only; elsewhere its record would be lost.
void run(kesa_thread_s& record) {
  set_state(record, THRD_SLOT_RUNNING);
  run_with_cleanup(
      [&record] {
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
        record.fn(record.arg);
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
      },
      end_current);
}

}  // namespace

void begin_thread(kesa_thread_s& record) {
  m_current_thread = &record;
  set_tid(record, static_cast<uint32_t>(gettid()));
  record_os_stack(record);
  set_signal_stack(record);
}

// The state changes first: a lookup must not find a thread that has lost its signal stack. The reference is dropped
// last: from then on the record may belong to another thread.
void end_thread(kesa_thread_s* record) {
  set_state(*record, THRD_SLOT_DEAD);
  unset_signal_stack(*record);
  m_current_thread = nullptr;
  kesa_thrd_putthreadinfo(record);
}

void end_current() {
  if (m_current_thread != nullptr) {
    end_thread(m_current_thread);
  }
}

void* default_entry(void* argument) {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);  // see run()
  auto& record = *static_cast<kesa_thread_s*>(argument);
  begin_thread(record);
  apply_default_strategy();
  run(record);
  return nullptr;
}

void* plain_entry(void* argument) {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);  // see run()
  auto& record = *static_cast<kesa_thread_s*>(argument);
  begin_thread(record);
  run(record);
  return nullptr;
}

}  // namespace tirn::thread

int kesa_thrd_setcurthreadinfo() {
  if (m_current_thread != nullptr) {
    return kOk;
  }
  kesa_thrd_module_init();
  const NoCancellation guard;
  kesa_thread_s* const record = take_record(nullptr, nullptr);
  if (record == nullptr) {
    return TIRN_INFO("Create thread info fail."), kFail;
  }
  begin_thread(*record);
  apply_default_strategy();
  set_state(*record, THRD_SLOT_RUNNING);
  return kOk;
}

int kesa_thrd_clearcurthreadinfo() {
  if (m_current_thread == nullptr) {
    return kFail;
  }
  const NoCancellation guard;
  end_thread(m_current_thread);
  return kOk;
}
