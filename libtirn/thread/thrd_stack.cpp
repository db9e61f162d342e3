// The stacks that a thread runs on: their bounds, which one an address lies on, and the walk up their frames.
#include <atomic>

#include "libtirn/arch/arch.h"
#include "libtirn/base/frames.h"
#include "libtirn/base/result.h"
#include "libtirn/thread/thrd_table.h"

using namespace tirn;

namespace {

using IsLwtStack = decltype(kesa_lwt_stack_ops::is_lwt_stack);
using GetLwtStack = decltype(kesa_lwt_stack_ops::get_lwt_stack);

constexpr uint64_t kPage = 4096;
constexpr uint64_t kNearFrame = 8192;  // bytes above the own frame that count as a stack of unknown kind

constinit std::atomic<IsLwtStack> g_is_lwt_stack{nullptr};
constinit std::atomic<GetLwtStack> g_get_lwt_stack{nullptr};
constinit std::atomic<uint64_t> g_unknown_stack_size{kPage};

int os_stack(const kesa_thread_s* record, uint64_t* start, uint64_t* end) {
  if (record == nullptr || record->stack_low == 0 || record->stack_high == 0) {
    return kFail;
  }
  *start = record->stack_low;
  *end = record->stack_high;
  return kOk;
}

}  // namespace

int kesa_thrd_getosstack(uint64_t* start, uint64_t* end) { return os_stack(m_current_thread, start, end); }

int kesa_thrd_getsigstack(uint64_t* start, uint64_t* end) {
  const kesa_thread_s* const record = m_current_thread;
  if (record == nullptr || record->signal_stack == nullptr) {
    return kFail;
  }
  *start = reinterpret_cast<uintptr_t>(record->signal_stack);
  *end = *start + KESA_THREAD_SIGNAL_STACK;
  return kOk;
}

int kesa_thread_get_specific_stack(uint32_t tid, uint64_t* start, uint64_t* end) {
  kesa_thread_s* const record = kesa_thrd_getthreadinfobytid(tid);
  const int result = os_stack(record, start, end);
  kesa_thrd_putthreadinfo(record);
  return result;
}

int register_lwt_stack_ops(const kesa_lwt_stack_ops* ops) {
  if (ops == nullptr) {
    return kFail;
  }
  // The releases pair with the acquires in the two calls below: they publish the data that the functions rely on.
  g_is_lwt_stack.store(ops->is_lwt_stack, std::memory_order_release);
  g_get_lwt_stack.store(ops->get_lwt_stack, std::memory_order_release);
  return kOk;
}

int unregister_lwt_stack_ops() {
  constexpr kesa_lwt_stack_ops kNone{nullptr, nullptr};
  return register_lwt_stack_ops(&kNone);
}

int kesa_thrd_islwtstack(uint64_t sp) {
  const IsLwtStack is_lwt_stack = g_is_lwt_stack.load(std::memory_order_acquire);
  return is_lwt_stack != nullptr ? is_lwt_stack(sp) : kFail;
}

int kesa_thrd_getlwtstack(uint64_t sp, uint64_t* start, uint64_t* end) {
  const GetLwtStack get_lwt_stack = g_get_lwt_stack.load(std::memory_order_acquire);
  return get_lwt_stack != nullptr ? get_lwt_stack(sp, start, end) : kFail;
}

uint64_t kesa_thrd_getunknownstacksize() { return g_unknown_stack_size.load(std::memory_order_relaxed); }

void kesa_thrd_setunknownstacksize(uint64_t size) { g_unknown_stack_size.store(size, std::memory_order_relaxed); }

// Runs in signal handlers too, so it takes no lock and only reads words. Never inlined, because it compares the
// address with its own frame.
__attribute__((noinline)) int kesa_thrd_getcurrentstack(uint64_t sp, uint64_t* start, uint64_t* end,
                                                        const char** name) {
  if (name == nullptr) {
    return kFail;
  }
  *name = "INVALID_STACK";
  const auto found = [&](const char* stack, const StackBounds& bounds) {
    *name = stack;
    *start = bounds.start;
    *end = bounds.end;
    return kOk;
  };
  StackBounds stack{};
  if (kesa_thrd_islwtstack(sp) == 0) {
    if (kesa_thrd_getlwtstack(sp, &stack.start, &stack.end) == 0) {
      return found("LWT_STACK", stack);
    }
    *name = "INVALID_LWT_STACK";
  }
  // The page below the stack counts too: a frame may lie in the guard area after a stack overflow.
  if (kesa_thrd_getosstack(&stack.start, &stack.end) == 0 && sp + kPage >= stack.start && sp < stack.end) {
    return found("OS_STACK", stack);
  }
  if (kesa_thrd_getsigstack(&stack.start, &stack.end) == 0 && sp >= stack.start && sp < stack.end) {
    return found("SIG_STACK", stack);
  }
  const uint64_t frame = TIRN_FRAME_POINTER();
  if (sp >= frame && sp - frame <= kNearFrame) {
    const uint64_t page = sp & ~(kPage - 1);
    return found("UNKNOWN_STACK", {page, page + kesa_thrd_getunknownstacksize()});
  }
  return kFail;
}

__attribute__((noinline)) int kesa_thrd_backtrace(uint64_t* out, uint32_t count, uint32_t skip) {
  const uint64_t frame = TIRN_FRAME_POINTER();
  StackBounds stack{};
  const char* name = nullptr;
  if (kesa_thrd_getcurrentstack(frame, &stack.start, &stack.end, &name) != kOk) {
    return kFail;
  }
  walk_frames(frame, stack, skip, count, out);
  return kOk;
}
