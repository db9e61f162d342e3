/*
 * The only interface to the kernel side of a node: the private system call, and the paths of the jiffies device.
 * It is built in one of two forms: over the node's own module, or over the stand-in in user space (libzut.so).
 */
#ifndef TIRN_PLATFORM_KERNEL_H
#define TIRN_PLATFORM_KERNEL_H

#include <cstdint>

namespace tirn::kernel {

inline constexpr uint64_t kUnused = ~uint64_t{0};

// Makes the private call `command` (the whole 64-bit word). Returns 0 or the command's own result, or -1 with errno.
long private_call(uint64_t command, uint64_t a = kUnused, uint64_t b = kUnused, uint64_t c = kUnused,
                  uint64_t d = kUnused);

// The paths of the jiffies device: the folder in sysfs that contains its uio entry, and the folder of device files.
// Both end in a slash and are never freed.
struct DevicePaths {
  const char* sysfs;
  const char* dev;
};
DevicePaths jiffies_device();

}  // namespace tirn::kernel

#endif
