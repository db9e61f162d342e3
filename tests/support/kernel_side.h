// Lets a test change what the kernel side does, in builds that use the stand-in.
#ifndef TIRN_TEST_KERNEL_SIDE_H
#define TIRN_TEST_KERNEL_SIDE_H

#include <cstdint>
#include <set>
#include <string>

#include "libtirn/base/private_call.h"
#include "temp_folder.h"
#include "zut.h"

namespace tirn::test {

using tirn::PrivateCommand;

// The destructor restores everything.
class KernelSide {
 public:
  KernelSide() = default;
  KernelSide(const KernelSide&) = delete;
  KernelSide& operator=(const KernelSide&) = delete;
  ~KernelSide();

  // Installs a handler for the command. A lambda without captures can be one.
  void replace(PrivateCommand command, zut_handler handler);
  // From now on the command returns -1 and sets this errno.
  void failing(PrivateCommand command, int error);
  // Returns the number of calls in this process so far.
  static uint64_t calls(PrivateCommand command) { return zut_call_count(static_cast<uint32_t>(command)); }
  // Returns the whole 64-bit word of the last call.
  static uint64_t last_word(PrivateCommand command) { return zut_last_word(static_cast<uint32_t>(command)); }

  // Withdraws the jiffies device, as on a machine without the kernel module.
  void no_jiffies();
  // Offers the device at these base paths, which end in a slash.
  void jiffies_at(const std::string& sysfs, const std::string& dev);

 private:
  std::set<PrivateCommand> replaced_;
};

// A jiffies device whose counter stands still until the test moves it. Make the first one before the library first
// looks for the device. Later ones move the same counter.
class JiffiesDevice {
 public:
  explicit JiffiesDevice(KernelSide& kernel, uint64_t start = 1000000);
  JiffiesDevice(const JiffiesDevice&) = delete;
  JiffiesDevice& operator=(const JiffiesDevice&) = delete;

  void set(uint64_t jiffies) { __atomic_store_n(counter_, jiffies, __ATOMIC_RELAXED); }
  void advance(uint64_t jiffies) { set(now() + jiffies); }
  uint64_t now() const { return __atomic_load_n(counter_, __ATOMIC_RELAXED); }
  // Returns the folder that holds both base paths, sysfs/ and dev/.
  const TempFolder& folder() const { return folder_; }

 private:
  TempFolder folder_;
  uint64_t* counter_;
};

}  // namespace tirn::test

#endif
