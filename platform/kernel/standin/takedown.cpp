// The commands reset, reboot and panic: they are recorded, and do not take the machine down.
#include "commands.h"
#include "futex.h"
#include "zut.h"

namespace zut {
namespace {

constexpr uint32_t kPanic = 0x003;

constinit ProcessLock record_lock;
constinit zut_takedown last{};
constinit bool any = false;

}  // namespace

// A panic may come from anywhere, even from a signal handler. So if the record is locked, the call is not recorded.
long refuse_takedown(const Call& call) {
  const bool panic = call.command() == kPanic;
  if (panic && !given(call.a)) {
    return fail(EFAULT);
  }
  if (record_lock.try_lock()) {
    last = {call.command(), call.a, call.b, call.c, {}};
    if (panic) {
      const char* text = static_cast<const char*>(pointer(call.a));
      memcpy(last.text, text, strnlen(text, sizeof(last.text) - 1));
    }
    any = true;
    record_lock.unlock();
  }
  return fail(ENOSYS);
}

long reboot_count(const Call& call) { return store<uint32_t>(call.c, 0); }

}  // namespace zut

int zut_last_takedown(zut_takedown* takedown) {
  if (!zut::record_lock.try_lock()) {
    return static_cast<int>(zut::fail(EAGAIN));
  }
  const bool any = zut::any;
  if (any) {
    *takedown = zut::last;
  }
  zut::record_lock.unlock();
  return any ? 0 : static_cast<int>(zut::fail(ENOENT));
}
