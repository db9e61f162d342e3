// The base paths of a node's jiffies device. Both forms of the kernel side return them where the device exists.
#ifndef TIRN_PLATFORM_DEVICE_PATHS_H
#define TIRN_PLATFORM_DEVICE_PATHS_H

namespace tirn::kernel {

inline constexpr char kSysfsBase[] = "/sys/devices/platform/jiffies_uio/uio/";
inline constexpr char kDevBase[] = "/dev/";

}  // namespace tirn::kernel

#endif
