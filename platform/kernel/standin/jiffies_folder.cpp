// The folder of the jiffies device. Several processes may make it at once: each file appears complete under its
// name or not at all, and there is one device for all of them.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "futex.h"
#include "jiffies.h"

namespace zut {
namespace {

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (number_ >= 0) {
      const int kept = errno;
      close(number_);
      errno = kept;
    }
  }
  int get() const { return number_; }
  bool open() const { return number_ >= 0; }
  int release() {
    const int number = number_;
    number_ = -1;
    return number;
  }

 private:
  int number_;
};

// A name that no other maker of the same file uses, in another process namespace neither.
struct TemporaryName {
  char text[64];
  TemporaryName() { snprintf(text, sizeof(text), ".new.%d.%lld", getpid(), static_cast<long long>(monotonic_now())); }
};

int refuse(int error) {
  errno = error;
  return -1;
}

// A folder of ours alone, made where it is missing. Whatever else bears the name is refused, a link above all:
// everybody may write beside the first one.
int open_folder(int parent, const char* name) {
  if (mkdirat(parent, name, 0700) != 0 && errno != EEXIST) {
    return -1;
  }
  Descriptor folder(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status;
  if (!folder.open() || fstat(folder.get(), &status) != 0) {
    return -1;
  }
  if (status.st_uid != geteuid() || (status.st_mode & 077) != 0) {
    return refuse(EPERM);
  }
  return folder.release();
}

bool holds(int folder, const char* name, const char* text) {
  const Descriptor file(openat(folder, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  char present[32];
  const ssize_t length = file.open() ? read(file.get(), present, sizeof(present)) : -1;
  return length == static_cast<ssize_t>(strlen(text)) && memcmp(present, text, static_cast<size_t>(length)) == 0;
}

int place_text(int folder, const char* name, const char* text) {
  if (holds(folder, name, text)) {
    return 0;
  }
  const TemporaryName temporary;
  const Descriptor file(openat(folder, temporary.text, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!file.open()) {
    return -1;
  }
  const ssize_t length = static_cast<ssize_t>(strlen(text));
  errno = ENOSPC;  // for a write that is merely short
  if (write(file.get(), text, static_cast<size_t>(length)) == length &&
      renameat(folder, temporary.text, folder, name) == 0) {
    return 0;
  }
  const int error = errno;
  unlinkat(folder, temporary.text, 0);
  return refuse(error);
}

int place_maps(int folder) {
  char size[32];
  char offset[32];
  snprintf(size, sizeof(size), "0x%x\n", kDeviceBytes);
  snprintf(offset, sizeof(offset), "0x%x\n", kCounterOffset);
  return place_text(folder, "addr", "0x0\n") == 0 && place_text(folder, "size", size) == 0 &&
                 place_text(folder, "offset", offset) == 0
             ? 0
             : -1;
}

// Gives the device its page now: a store into a mapped page that cannot be had any more would kill the process.
int reserve_page(int device) {
  int error;
  do {
    error = posix_fallocate(device, 0, kDeviceBytes);
  } while (error == EINTR);
  return error == 0 ? 0 : refuse(error);
}

int make_device(int folder, const char* name) {
  const TemporaryName temporary;
  const Descriptor device(openat(folder, temporary.text, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!device.open()) {
    return -1;
  }
  int error = 0;
  if (reserve_page(device.get()) != 0) {
    error = errno;
  } else if (linkat(folder, temporary.text, folder, name, 0) != 0 && errno != EEXIST) {  // the first one stays
    error = errno;
  }
  unlinkat(folder, temporary.text, 0);
  return error == 0 ? 0 : refuse(error);
}

int open_device(int folder, const char* name) {
  constexpr int kFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  int number = openat(folder, name, kFlags);
  if (number < 0 && errno == ENOENT && make_device(folder, name) == 0) {
    number = openat(folder, name, kFlags);
  }
  Descriptor device(number);
  struct stat status;
  if (!device.open() || fstat(device.get(), &status) != 0) {
    return -1;
  }
  if (!S_ISREG(status.st_mode)) {
    return refuse(ENXIO);
  }
  return reserve_page(device.get()) == 0 ? device.release() : -1;
}

}  // namespace

int open_device_folder(const char* root) {
  const Descriptor folder(open_folder(AT_FDCWD, root));
  if (!folder.open()) {
    return -1;
  }
  const Descriptor sysfs(open_folder(folder.get(), "sysfs"));
  const Descriptor uio(sysfs.open() ? open_folder(sysfs.get(), "uio0") : -1);
  const Descriptor maps(uio.open() ? open_folder(uio.get(), "maps") : -1);
  const Descriptor map(maps.open() ? open_folder(maps.get(), "map0") : -1);
  if (!map.open() || place_maps(map.get()) != 0) {
    return -1;
  }
  const Descriptor dev(open_folder(folder.get(), "dev"));
  return dev.open() ? open_device(dev.get(), "uio0") : -1;
}

}  // namespace zut
