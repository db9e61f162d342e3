// The offer of the jiffies device.
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <mutex>

#include "commands.h"
#include "futex.h"
#include "jiffies.h"
#include "uncancelled.h"
#include "zut.h"

namespace zut {
namespace {

constexpr size_t kRootBytes = 48;
using Root = char[kRootBytes];

// All of it under the lock.
constinit ProcessLock lock;
constinit bool withdrawn = false;
constinit const char* foreign_sysfs = nullptr;  // a test's own place
constinit const char* foreign_dev = nullptr;
constinit char sysfs_path[64] = "";
constinit char dev_path[64] = "";
constinit Root private_root = "";       // the folder of random name, once it is made
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

// The places that were refused, told when the lock is free: a log callback may end the thread, or look for the device.
class Refusals {
 public:
  void add(const char* root) {
    snprintf(rows_[count_].root, kRootBytes, "%s", root);
    rows_[count_++].error = errno;
  }
  int first_error() const { return rows_[0].error; }
  void tell() const {
    for (int i = 0; i < count_ && hurn_level_check(kModule, HURN_WARNING) == 0; ++i) {
      hurn(kModule, HURN_WARNING, "standin", __LINE__, __func__, 0, "Jiffies device below %s refused, errno=%d.",
           rows_[i].root, rows_[i].error);
    }
  }

 private:
  static constexpr int kMost = 4;  // the known places and the private one
  struct {
    Root root;
    int error;
  } rows_[kMost];
  int count_ = 0;
};

// Whether another process keeps the counter of a device that this one can only read.
bool is_current(int device) {
  constexpr uint64_t kRecent = kSecond / kJiffy;
  void* page = mmap(nullptr, kDeviceBytes, PROT_READ, MAP_SHARED, device, 0);
  if (page == MAP_FAILED) {
    return false;
  }
  auto* word = reinterpret_cast<uint64_t*>(static_cast<char*>(page) + kCounterOffset);
  const uint64_t seen = std::atomic_ref(*word).load(std::memory_order_relaxed);
  munmap(page, kDeviceBytes);
  errno = ESTALE;
  const uint64_t now = jiffies_now();
  return seen <= now && now - seen < kRecent;
}

bool offer(const char* root, Access access) {
  const int device = open_device_folder(root, access);
  if (device < 0) {
    return false;
  }
  const bool good = access == Access::kRead ? is_current(device) : map_device(device) == 0;
  const int error = errno;
  close(device);
  errno = error;
  if (!good || (access == Access::kMake && keep_current(counter) != 0)) {
    return false;
  }
  set_path(sysfs_path, root, "sysfs");
  set_path(dev_path, root, "dev");
  return true;
}

// Root's place is one that only root can make. `refusals` may be NULL.
bool offer_known(Access access, Refusals* refusals) {
  constexpr const char* kPlaces[] = {"/run/zut", "/dev/shm/zut", "/tmp/zut"};
  const uid_t user = geteuid();
  for (size_t i = user == 0 ? 0 : 1; i < std::size(kPlaces); ++i) {
    Root root;
    snprintf(root, sizeof(root), "%s-%u", kPlaces[i], user);
    if (offer(root, access)) {
      return true;
    }
    if (refusals != nullptr) {
      refusals->add(root);
    }
  }
  return false;
}

// Nobody can stand in the way of a name that nobody knows beforehand. The folder stays when the process is gone; forked
// children share it.
bool offer_private(Refusals* refusals) {
  if (private_root[0] != '\0' && offer(private_root, Access::kMake)) {
    return true;
  }
  snprintf(private_root, sizeof(private_root), "/tmp/zut-%u-XXXXXX", geteuid());
  if (mkdtemp(private_root) != nullptr && offer(private_root, Access::kMake)) {
    return true;
  }
  refusals->add(private_root);
  private_root[0] = '\0';
  return false;
}

int offer_device(const char** sysfs, const char** dev, Refusals* refusals) {
  const std::lock_guard guard(lock);
  if (withdrawn) {
    return static_cast<int>(fail(ENODEV));
  }
  const bool foreign = foreign_sysfs != nullptr && foreign_dev != nullptr;
  // What can only be read comes last: its counter stops with the process that keeps it.
  if (!foreign && !offer_known(Access::kMake, refusals) && !offer_private(refusals) &&
      !offer_known(Access::kRead, nullptr)) {
    return static_cast<int>(fail(refusals->first_error()));
  }
  *sysfs = foreign ? foreign_sysfs : sysfs_path;
  *dev = foreign ? foreign_dev : dev_path;
  return 0;
}

}  // namespace
}  // namespace zut

int zut_jiffies_device(const char** sysfs, const char** dev) {
  const zut::Uncancelled uncancelled;
  zut::Refusals refusals;
  const int result = zut::offer_device(sysfs, dev, &refusals);
  const int error = errno;
  refusals.tell();
  errno = error;
  return result;
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
