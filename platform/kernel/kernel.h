/*
 * The one door to the kernel side of a node: the private system call, and the place of the jiffies device.
 * Built in one of two forms: over the node's own module, or over the stand-in in user space (libzut.so).
 */
#ifndef TIRN_PLATFORM_KERNEL_H
#define TIRN_PLATFORM_KERNEL_H

#include <cstdint>

namespace tirn::kernel {

inline constexpr uint64_t kUnused = ~uint64_t{0};

// Makes private call `command` (the whole 64-bit word). 0 or the command's own result; -1 with errno.
long private_call(uint64_t command, uint64_t a = kUnused, uint64_t b = kUnused, uint64_t c = kUnused,
                  uint64_t d = kUnused);

// Where the jiffies device lies: the folder in sysfs that holds its uio entry, and the folder of device files.
// Both end in a slash and live for ever.
struct DevicePaths {
  const char* sysfs;
  const char* dev;
};
DevicePaths jiffies_device();

}  // namespace tirn::kernel

#endif
