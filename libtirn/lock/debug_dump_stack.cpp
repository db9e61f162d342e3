#include <unistd.h>

#include "libtirn/arch/arch.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "tirn/lock.h"
#include "tirn/thread.h"

namespace {

constexpr uintptr_t kReach =
    0x1058;  // bytes of stack above the own frame, taken as readable as long as its bounds are not known
constexpr int kShown = 3;

// What a frame pointer points to.
struct Frame {
  uintptr_t up;
  void* return_address;
};

struct Bounds {
  uintptr_t low;
  uintptr_t high;

  bool hold(uintptr_t frame) const { return frame >= low && frame <= high && frame % alignof(Frame) == 0; }
};

// A stale word may lead into the middle of somebody's frame, which the sanitizers watch.
__attribute__((no_sanitize("address", "thread"))) inline Frame frame_at(uintptr_t frame) {
  const volatile Frame& found = *reinterpret_cast<const volatile Frame*>(frame);
  return {found.up, found.return_address};
}

}  // namespace

// Never inlined: `skip` counts this function's own frame.
__attribute__((noinline)) void debug_dump_stack(uint32_t skip) {
  uintptr_t frame = TIRN_FRAME_POINTER();
  // Callers' frames lie above this one; where a processor has its locals says nothing of that.
  uint64_t low = frame;
  uint64_t high = frame + kReach;
  const char* name = nullptr;
  if (kesa_thrd_getcurrentstack(frame, &low, &high, &name) != tirn::kOk) {
    high = frame + kReach;
  }
  const Bounds bounds{frame, high - sizeof(Frame)};
  for (; skip != 0 && bounds.hold(frame); --skip) {
    frame = frame_at(frame).up;
  }
  void* addresses[kShown] = {};
  for (int i = 0; i < kShown && bounds.hold(frame); ++i) {
    const Frame found = frame_at(frame);
    addresses[i] = found.return_address;
    frame = found.up;
  }
  hurn_original("current tid:%d, stack:%p(%s) << %p(%s) << %p(%s).", gettid(), addresses[0], "", addresses[1], "",
                addresses[2], "");
}
