// The command that sleeps on a state word. Wakers clear the word and send a signal; none of them wakes a futex.
#include <algorithm>

#include "commands.h"
#include "futex.h"

namespace zut {
namespace {

// Far beyond any uptime, yet small enough that a deadline does not overflow.
constexpr int64_t kLongest = INT64_MAX / 4 / kJiffy;

// Sleeps while the word is not zero, even if it changes to another value. Returns the error that ended the sleep:
// EAGAIN for a word of zero, EINTR for a signal, ETIMEDOUT when the time ran out.
int sleep_while_set(uint32_t* word, int64_t deadline) {
  for (;;) {
    // Acquire: pairs with the waker's release of the word; what the waker did before is seen after the sleep.
    const uint32_t value = std::atomic_ref(*word).load(std::memory_order_acquire);
    if (value == 0) {
      return EAGAIN;
    }
    if (futex_wait(word, value, deadline) != 0 && errno != EAGAIN) {
      return errno;
    }
  }
}

}  // namespace

long wait_while_set(const Call& call) {
  if (!given(call.a) || !given(call.b) || !given(call.c)) {
    return fail(EFAULT);
  }
  if (call.a % alignof(uint32_t) != 0) {
    return fail(EINVAL);
  }
  const int64_t timeout = load<int64_t>(call.b);
  const int64_t start = monotonic_now();
  int error = ETIMEDOUT;
  if (timeout > 0) {
    error = sleep_while_set(static_cast<uint32_t*>(pointer(call.a)), start + std::min(timeout, kLongest) * kJiffy);
  }
  // If a signal or the word cut the sleep short, even in its last moment, the rest is above 0: a rest of 0 means that
  // the time ran out or that there was no sleep.
  const bool is_cut_short = error == EINTR || error == EAGAIN;
  const int64_t passed = (monotonic_now() - start) / kJiffy;
  const int64_t rest = is_cut_short ? std::max<int64_t>(timeout - passed, 1) : 0;
  store(call.b, rest);
  store(call.c, rest);
  return error == ETIMEDOUT ? 0 : fail(error);
}

}  // namespace zut
