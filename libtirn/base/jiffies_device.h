// Tells the modules where the jiffies device lies on this machine.
#ifndef TIRN_BASE_JIFFIES_DEVICE_H
#define TIRN_BASE_JIFFIES_DEVICE_H

#include "kernel/kernel.h"

namespace tirn {

using kernel::DevicePaths;
using kernel::jiffies_device;

}  // namespace tirn

#endif
