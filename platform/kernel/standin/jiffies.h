// The three pieces of the jiffies device: its folder, its thread, and the offer of both (jiffies_device.cpp).
#ifndef ZUT_JIFFIES_H
#define ZUT_JIFFIES_H

#include <cstdint>

namespace zut {

inline constexpr int kDeviceBytes = 4096;
inline constexpr int kCounterOffset = 0x80;

// Makes what is missing of the folder at `root` and opens its device, read-write. -1 with errno.
int open_device_folder(const char* root);

// Keeps the counter current from now on, in this process and in its forked children. A counter may be given again.
// 0 or -1 with errno. One caller at a time.
int keep_current(uint64_t* counter);

}  // namespace zut

#endif
