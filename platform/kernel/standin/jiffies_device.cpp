// Offers the jiffies device: chooses its folder, and has its counter kept current.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <iterator>
#include <mutex>
#include <span>

#include "commands.h"
#include "futex.h"
#include "jiffies.h"
#include "uncancelled.h"
#include "zut.h"

namespace zut {
namespace {

constexpr size_t kPathBytes = 64;

// A device that has been offered. Its paths and its mapping never change, because callers keep the paths, and the
// thread stores into the mapping.
struct Device {
  char sysfs[kPathBytes];
  char dev[kPathBytes];
  dev_t system;
  ino_t file;
  uint64_t* counter;  // NULL if another process keeps it current
};

// The lock guards the variables below.
constinit ProcessLock lock;
constinit bool withdrawn = false;
constinit const char* foreign_sysfs = nullptr;  // the paths of a test, or NULL
constinit const char* foreign_dev = nullptr;
constinit Device devices[kMostDevices]{};
constinit std::atomic<size_t> device_count{0};  // increased last, as a fork may come at any time
constinit char private_suffix[24] = "";         // chosen when first needed; forked children use the same folder

// Collects the folders that were refused, for one log line.
struct Refusals {
  char text[kPathBytes * 4] = "";
  int error = 0;  // errno of the first

  void add(const char* root) {
    const int present = errno;
    const size_t length = strlen(text);
    snprintf(text + length, sizeof(text) - length, "%s%s errno=%d", length != 0 ? ", " : "", root, present);
    error = error != 0 ? error : present;
  }
};

// Returns the entry of the device with this descriptor, after adding it if it is new, or NULL with errno.
const Device* enter_device(int descriptor, const char* root, int access) {
  Device fresh{};
  struct stat status;
  if (fstat(descriptor, &status) != 0) {
    return nullptr;
  }
  snprintf(fresh.sysfs, kPathBytes, "%s/sysfs/", root);
  snprintf(fresh.dev, kPathBytes, "%s/dev/", root);
  const size_t count = device_count.load(std::memory_order_relaxed);
  for (const Device& known : std::span(devices).first(count)) {
    if (known.system == status.st_dev && known.file == status.st_ino && strcmp(known.sysfs, fresh.sysfs) == 0 &&
        (known.counter != nullptr) == (access == O_RDWR)) {
      return &known;
    }
  }
  if (count == kMostDevices) {
    errno = ENOSPC;
    return nullptr;
  }
  if (access == O_RDWR) {
    void* page = mmap(nullptr, kDeviceBytes, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    if (page == MAP_FAILED) {
      return nullptr;
    }
    fresh.counter = reinterpret_cast<uint64_t*>(static_cast<char*>(page) + kCounterOffset);
  }
  fresh.system = status.st_dev;
  fresh.file = status.st_ino;
  devices[count] = fresh;
  device_count.store(count + 1, std::memory_order_release);
  return &devices[count];
}

// Returns whether another process keeps the counter current, and sets errno for the case that none does. The counter
// is read, not mapped, because the device file may have been truncated.
bool is_current(int descriptor) {
  constexpr uint64_t kRecent = kSecond / kJiffy;
  uint64_t seen = 0;
  const bool whole = pread(descriptor, &seen, sizeof(seen), kCounterOffset) == sizeof(seen);
  errno = ESTALE;
  return whole && jiffies_now() - seen < kRecent;
}

// Offers the device in one folder. Returns NULL with errno if it cannot be had.
const Device* offer(const char* root, int access) {
  const int descriptor = open_device_folder(root, access);
  if (descriptor < 0) {
    return nullptr;
  }
  const bool good = access == O_RDWR || is_current(descriptor);
  const Device* device = good ? enter_device(descriptor, root, access) : nullptr;
  const int error = errno;
  close(descriptor);
  errno = error;
  const bool kept = device != nullptr && (access == O_RDONLY || keep_current(device->counter) == 0);
  return kept ? device : nullptr;
}

// Tries the folders for writing, then for reading: the counter of a device that can only be read stops when the
// process that keeps it current ends.
const Device* offer_any(Refusals* refusals) {
  // Only root can make the first folder. Nobody can block the last one, as its name cannot be known beforehand.
  constexpr const char* kFolders[] = {"/run", "/dev/shm", "/tmp", "/tmp"};
  constexpr size_t kPrivate = std::size(kFolders) - 1;
  if (private_suffix[0] == '\0') {
    snprintf(private_suffix, sizeof(private_suffix), "-%llx", static_cast<unsigned long long>(monotonic_now()));
  }
  const uid_t user = geteuid();
  for (const int access : {O_RDWR, O_RDONLY}) {
    for (size_t i = user == 0 ? 0 : 1; i <= kPrivate; ++i) {
      char root[kPathBytes / 2 + sizeof(private_suffix)];
      snprintf(root, sizeof(root), "%s/zut-%u%s", kFolders[i], user, i == kPrivate ? private_suffix : "");
      if (const Device* device = offer(root, access)) {
        return device;
      }
      if (access == O_RDWR) {
        refusals->add(root);
      }
    }
  }
  return nullptr;
}

int offer_device(const char** sysfs, const char** dev, Refusals* refusals) {
  const std::lock_guard guard(lock);
  if (withdrawn) {
    return static_cast<int>(fail(ENODEV));
  }
  if (foreign_sysfs != nullptr && foreign_dev != nullptr) {
    *sysfs = foreign_sysfs;
    *dev = foreign_dev;
    return 0;
  }
  const Device* device = offer_any(refusals);
  if (device == nullptr) {
    return static_cast<int>(fail(refusals->error));
  }
  *sysfs = device->sysfs;
  *dev = device->dev;
  return 0;
}

}  // namespace
}  // namespace zut

int zut_jiffies_device(const char** sysfs, const char** dev) {
  const zut::Uncancelled uncancelled;
  zut::Refusals refusals;
  const int result = zut::offer_device(sysfs, dev, &refusals);
  const int error = errno;
  // Logged after the lock is released, because a log callback may end the thread or look for the device itself.
  if (refusals.error != 0 && hurn_level_check(zut::kModule, HURN_WARNING) == 0) {
    hurn(zut::kModule, HURN_WARNING, "standin", __LINE__, __func__, 0, "Jiffies device refused: %s.", refusals.text);
  }
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
