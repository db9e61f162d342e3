// POSIX timers behind a check of their arguments.
#include <cerrno>

#include "libtirn/base/log.h"
#include "tirn/timer.h"

using namespace tirn;

namespace {

constexpr uint32_t kClocks = 4;  // clocks that are let through, whatever the system has beyond them

unsigned long long address_of(const void* object) { return reinterpret_cast<uintptr_t>(object); }

}  // namespace

int kesa_timer_create_posix(uint32_t clock, struct sigevent* event, timer_t* timer_out) {
  if (event == nullptr || timer_out == nullptr) {
    TIRN_ERROR("Argument NULL in kesa_timer_create_posix, evp: 0x%llx, timerid: 0x%llx!\n", address_of(event),
               address_of(timer_out));
    return -EINVAL;
  }
  if (clock >= kClocks) {
    return TIRN_ERROR("Argument clockid: %d is out of range in kesa_timer_create_posix!\n", static_cast<int>(clock)),
           -EINVAL;
  }
  return timer_create(static_cast<clockid_t>(clock), event, timer_out);
}

int kesa_timer_delete_posix(timer_t timer) { return timer_delete(timer); }

int kesa_timer_settime_posix(timer_t timer, int flags, const itimerspec* value, itimerspec* former) {
  if (value == nullptr) {
    TIRN_ERROR("Argument NULL in kesa_timer_settime_posix, timerid: 0x%llx, new_value: 0x%llx!\n", address_of(timer),
               address_of(value));
    return -EINVAL;
  }
  return timer_settime(timer, flags, value, former);
}

int kesa_timer_gettime_posix(timer_t timer, itimerspec* value) {
  if (value == nullptr) {
    TIRN_ERROR("Argument NULL in kesa_timer_gettime_posix, timerid: 0x%llx, curr_value: 0x%llx!\n", address_of(timer),
               address_of(value));
    return -EINVAL;
  }
  return timer_gettime(timer, value);
}

int kesa_timer_getoverrun_posix(timer_t timer) { return timer_getoverrun(timer); }
