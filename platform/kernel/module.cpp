// The kernel side of a node: its own kernel module.
#include <unistd.h>

#include "kernel/device_paths.h"
#include "kernel/kernel.h"

namespace tirn::kernel {

long private_call(uint64_t command, uint64_t a, uint64_t b, uint64_t c, uint64_t d) {
  constexpr long kPrivateCall = 259;
  return syscall(kPrivateCall, command, a, b, c, d);
}

DevicePaths jiffies_device() { return {kSysfsBase, kDevBase}; }

}  // namespace tirn::kernel
