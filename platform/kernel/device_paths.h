// The jiffies device of a node; both forms of the kernel side answer with these wherever it is really there.
#ifndef TIRN_PLATFORM_DEVICE_PATHS_H
#define TIRN_PLATFORM_DEVICE_PATHS_H

namespace tirn::kernel {

inline constexpr char kSysfsBase[] = "/sys/devices/platform/jiffies_uio/uio/";
inline constexpr char kDevBase[] = "/dev/";

}  // namespace tirn::kernel

#endif
