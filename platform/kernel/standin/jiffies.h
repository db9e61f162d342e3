// The three pieces of the jiffies device: its folder, its thread, and the offer of both (jiffies_device.cpp).
#ifndef ZUT_JIFFIES_H
#define ZUT_JIFFIES_H

#include <cstddef>
#include <cstdint>

#include "futex.h"

namespace zut {

inline constexpr int kDeviceBytes = 4096;
inline constexpr int kCounterOffset = 0x80;

// More than one only where a folder was removed and made anew: whoever mapped the old device reads on.
inline constexpr size_t kMostDevices = 8;

inline uint64_t jiffies_now() { return static_cast<uint64_t>(monotonic_now() / kJiffy); }

// Opens the device of the folder at `root`, and makes what is missing. `access`: O_RDWR, or O_RDONLY where the folder
// cannot be written. -1 with errno.
int open_device_folder(const char* root, int access);

// Keeps the counter current from now on, in this process and in its forked children. A counter may be given again.
// 0 or -1 with errno. One caller at a time.
int keep_current(uint64_t* counter);

// Starts the thread in a forked child if there is a counter to keep. A failure is made good when the child looks for
// the device.
void restart_thread();

}  // namespace zut

#endif
