// The kernel side as a test wants it. For builds over the stand-in.
#ifndef TIRN_TEST_KERNEL_SIDE_H
#define TIRN_TEST_KERNEL_SIDE_H

#include <cstdint>
#include <map>
#include <string>

#include "temp_folder.h"
#include "zut.h"

namespace tirn::test {

// Everything is put back at the end. Commands are the low half of a command word: 0x800 and so on.
class KernelSide {
 public:
  KernelSide() = default;
  KernelSide(const KernelSide&) = delete;
  KernelSide& operator=(const KernelSide&) = delete;
  ~KernelSide();

  // A lambda without captures will do for a handler.
  void replace(uint32_t command, zut_handler handler);
  // The command gives -1 with this error from now on.
  void failing(uint32_t command, int error);
  // Calls since this object was told of the command by replace(), failing() or watch().
  uint64_t calls(uint32_t command) const;
  void watch(uint32_t command);
  // The whole 64-bit word of the last call.
  static uint64_t last_word(uint32_t command) { return zut_last_word(command); }

  // There is no jiffies device, as on a machine without the module.
  void no_jiffies();
  // The device lies at these base paths, which end in a slash.
  void jiffies_at(const std::string& sysfs, const std::string& dev);

 private:
  std::map<uint32_t, uint64_t> calls_before_;
};

// A jiffies device whose counter stands still until the test moves it. To be made before the library first looks
// for the device; later ones move the counter of the first.
class JiffiesDevice {
 public:
  explicit JiffiesDevice(KernelSide& kernel, uint64_t start = 1000000);
  JiffiesDevice(const JiffiesDevice&) = delete;
  JiffiesDevice& operator=(const JiffiesDevice&) = delete;

  void set(uint64_t jiffies) { __atomic_store_n(counter_, jiffies, __ATOMIC_RELAXED); }
  void advance(uint64_t jiffies) { set(now() + jiffies); }
  uint64_t now() const { return __atomic_load_n(counter_, __ATOMIC_RELAXED); }
  // The folder of both base paths: sysfs/ and dev/.
  const TempFolder& folder() const { return folder_; }

 private:
  TempFolder folder_;
  uint64_t* counter_;
};

}  // namespace tirn::test

#endif
