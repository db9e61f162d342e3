// The kernel side in user space: calls the stand-in, libzut.so.
#include <unistd.h>

#include "kernel/device_paths.h"
#include "kernel/kernel.h"
#include "zut.h"

namespace tirn::kernel {

long private_call(uint64_t command, uint64_t a, uint64_t b, uint64_t c, uint64_t d) {
  return zut_private_call(command, a, b, c, d);
}

DevicePaths jiffies_device() {
  DevicePaths paths{kSysfsBase, kDevBase};
  if (access(kSysfsBase, F_OK) != 0) {
    zut_jiffies_device(&paths.sysfs, &paths.dev);  // on failure the paths above stay; they do not open
  }
  return paths;
}

}  // namespace tirn::kernel
