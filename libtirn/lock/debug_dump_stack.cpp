// Logs three return addresses of the calling thread's stack.
#include <unistd.h>

#include "libtirn/arch/arch.h"
#include "libtirn/base/frames.h"
#include "libtirn/base/log.h"
#include "tirn/lock.h"
#include "tirn/thread.h"

using namespace tirn;

namespace {

constexpr uint64_t kReach = 0x1058;  // bytes above the own frame that count as the stack if its bounds are not known
constexpr uint32_t kShown = 3;

const void* shown(uint64_t address) { return reinterpret_cast<const void*>(address); }

}  // namespace

// Never inlined: `skip` counts this function's own frame. The names are empty as long as there is no symbol table.
__attribute__((noinline)) void debug_dump_stack(uint32_t skip) {
  const uint64_t frame = TIRN_FRAME_POINTER();
  StackBounds stack{frame, frame + kReach};
  const char* name = nullptr;
  kesa_thrd_getcurrentstack(frame, &stack.start, &stack.end, &name);  // on failure the bounds stay
  uint64_t addresses[kShown];
  walk_frames(frame, stack, skip, kShown, addresses);
  TIRN_LOG_RAW("current tid:%d, stack:%p(%s) << %p(%s) << %p(%s).", gettid(), shown(addresses[0]), "",
               shown(addresses[1]), "", shown(addresses[2]), "");
}
