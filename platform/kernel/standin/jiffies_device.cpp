// The offer of the jiffies device.
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>

#include "commands.h"
#include "futex.h"
#include "jiffies.h"
#include "uncancelled.h"
#include "zut.h"

namespace zut {
namespace {

// All of it under the lock.
constinit ProcessLock lock;
constinit bool withdrawn = false;
constinit const char* foreign_sysfs = nullptr;  // a test's own place
constinit const char* foreign_dev = nullptr;
constinit char sysfs_path[64] = "";
constinit char dev_path[64] = "";
constinit uint64_t* counter = nullptr;  // that of the device mapped last
constinit dev_t mapped_system = 0;
constinit ino_t mapped_file = 0;

// Maps the device, unless it is the one mapped already. A mapping is never removed: the thread stores into it.
int map_device(int device) {
  struct stat status;
  if (fstat(device, &status) != 0) {
    return -1;
  }
  if (counter != nullptr && status.st_dev == mapped_system && status.st_ino == mapped_file) {
    return 0;
  }
  void* page = mmap(nullptr, kDeviceBytes, PROT_READ | PROT_WRITE, MAP_SHARED, device, 0);
  if (page == MAP_FAILED) {
    return -1;
  }
  counter = reinterpret_cast<uint64_t*>(static_cast<char*>(page) + kCounterOffset);
  mapped_system = status.st_dev;
  mapped_file = status.st_ino;
  return 0;
}

// Only where it differs, after a change of the user: others may be reading it.
void set_path(char (&path)[64], const char* root, const char* folder) {
  char present[64] = "";
  snprintf(present, sizeof(present), "%s/%s/", root, folder);
  if (strcmp(path, present) != 0) {
    memcpy(path, present, sizeof(path));
  }
}

int make_own_device() {
  char root[32];
  snprintf(root, sizeof(root), "/dev/shm/zut-%u", geteuid());
  const int device = open_device_folder(root);
  if (device < 0) {
    return -1;
  }
  const int mapped = map_device(device);
  const int error = errno;
  close(device);
  errno = error;
  if (mapped != 0 || keep_current(counter) != 0) {
    return -1;
  }
  set_path(sysfs_path, root, "sysfs");
  set_path(dev_path, root, "dev");
  return 0;
}

}  // namespace
}  // namespace zut

int zut_jiffies_device(const char** sysfs, const char** dev) {
  const zut::Uncancelled uncancelled;
  const std::lock_guard guard(zut::lock);
  if (zut::withdrawn) {
    return static_cast<int>(zut::fail(ENODEV));
  }
  const bool foreign = zut::foreign_sysfs != nullptr && zut::foreign_dev != nullptr;
  if (!foreign && zut::make_own_device() != 0) {
    return -1;
  }
  *sysfs = foreign ? zut::foreign_sysfs : zut::sysfs_path;
  *dev = foreign ? zut::foreign_dev : zut::dev_path;
  return 0;
}

void zut_offer_jiffies(int offered) {
  const std::lock_guard guard(zut::lock);
  zut::withdrawn = offered == 0;
}

void zut_set_jiffies_paths(const char* sysfs, const char* dev) {
  const std::lock_guard guard(zut::lock);
  zut::foreign_sysfs = sysfs;
  zut::foreign_dev = dev;
  zut::withdrawn = false;
}
