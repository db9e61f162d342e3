// The folder and the thread of the jiffies device, which jiffies_device.cpp offers.
#ifndef ZUT_JIFFIES_H
#define ZUT_JIFFIES_H

#include <cstddef>
#include <cstdint>

#include "futex.h"

namespace zut {

inline constexpr int kDeviceBytes = 4096;
inline constexpr int kCounterOffset = 0x80;

// There is a further device if the folder was removed or cannot be used any more. The former one is kept current for
// the programs that have mapped it.
inline constexpr size_t kMostDevices = 8;

inline uint64_t jiffies_now() { return static_cast<uint64_t>(monotonic_now() / kJiffy); }

// Opens the device in the folder `root`, and makes what is missing. `access` is O_RDWR, or O_RDONLY for a folder that
// cannot be written. Returns the descriptor, or -1 with errno.
int open_device_folder(const char* root, int access);

// Keeps the counter current from now on, in this process and in its forked children. The same counter may be passed
// again. Returns 0, or -1 with errno. Only one thread at a time may call it.
int keep_current(uint64_t* counter);

// Starts the thread in a forked child if there is a counter to keep. If that fails, the thread starts when the child
// looks for the device.
void restart_thread();

}  // namespace zut

#endif
