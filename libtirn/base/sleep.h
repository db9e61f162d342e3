// Sleeps of locks that wait. A signal ends them early, the rest is not slept, and errno is kept: taking a lock does
// not change it.
#ifndef TIRN_BASE_SLEEP_H
#define TIRN_BASE_SLEEP_H

#include <sys/select.h>
#include <time.h>

#include <cerrno>
#include <cstdint>

namespace tirn {

inline void sleep_microseconds(uint32_t count) {
  const int error = errno;
  timeval time{static_cast<time_t>(count / 1000000), static_cast<suseconds_t>(count % 1000000)};
  select(0, nullptr, nullptr, nullptr, &time);
  errno = error;
}

// Gives the processor up for a millisecond.
inline void give_up_processor() {
  const int error = errno;
  const timespec time{0, 1000000};
  nanosleep(&time, nullptr);
  errno = error;
}

}  // namespace tirn

#endif
