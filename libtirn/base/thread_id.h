// The kernel's id of the calling thread without a system call.
#ifndef TIRN_BASE_THREAD_ID_H
#define TIRN_BASE_THREAD_ID_H

#include <unistd.h>

#include <cstdint>

namespace tirn {

// 0: not asked for yet.
inline constinit thread_local uint32_t t_kernel_thread_id [[gnu::tls_model("initial-exec")]] = 0;

// Asks the kernel once in each thread. In a forked child the thread that forked goes on under the id that it had in
// the parent, so that what it held at the fork is still its own there; threads started later have theirs.
inline uint32_t kernel_thread_id() {
  if (t_kernel_thread_id == 0) [[unlikely]] {
    t_kernel_thread_id = static_cast<uint32_t>(gettid());
  }
  return t_kernel_thread_id;
}

}  // namespace tirn

#endif
