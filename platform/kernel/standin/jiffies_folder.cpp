// Makes and opens the folder of the jiffies device. Several processes may make it at once: each file appears complete
// under its name or not at all, and there is one device for all of them.
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

// A name that no other process chooses for the same file, even in another process namespace.
struct TemporaryName {
  char text[64];
  TemporaryName() { snprintf(text, sizeof(text), ".new.%d.%lld", getpid(), static_cast<long long>(monotonic_now())); }
};

int refuse(int error) {
  errno = error;
  return -1;
}

// Returns whether the file belongs to this user alone. Anything else with the name is refused, because every user may
// make files next to the outermost folder.
bool is_private(const Descriptor& file, struct stat* status) {
  if (!file.open() || fstat(file.get(), status) != 0) {
    return false;
  }
  errno = EPERM;
  return status->st_uid == geteuid() && (status->st_mode & 077) == 0;
}

int open_folder(int parent, const char* name) {
  constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  int number = openat(parent, name, kFlags);
  if (number < 0 && (errno == ENOENT || errno == EACCES)) {
    if (mkdirat(parent, name, 0700) != 0 && errno != EEXIST) {
      return -1;
    }
    // Sets the mode whatever the umask is, even if another process is making the folder. is_private tests the mode.
    [[maybe_unused]] const int changed = fchmodat(parent, name, 0700, AT_SYMLINK_NOFOLLOW);
    number = openat(parent, name, kFlags);
  }
  Descriptor folder(number);
  struct stat status;
  return is_private(folder, &status) ? folder.release() : -1;
}

bool holds(int folder, const char* name, const char* text) {
  const Descriptor file(openat(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  char present[32];
  const ssize_t length = file.open() ? read(file.get(), present, sizeof(present)) : -1;
  return length == static_cast<ssize_t>(strlen(text)) && memcmp(present, text, static_cast<size_t>(length)) == 0;
}

// Makes a file under its temporary name, with mode 0600 whatever the umask is. Returns the descriptor, or -1.
int make_file(int folder, const TemporaryName& name, int access) {
  Descriptor file(openat(folder, name.text, access | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  return file.open() && fchmod(file.get(), 0600) == 0 ? file.release() : -1;
}

int place_text(int folder, const char* name, const char* text) {
  if (holds(folder, name, text)) {
    return 0;
  }
  const TemporaryName temporary;
  const Descriptor file(make_file(folder, temporary, O_WRONLY));
  if (!file.open()) {
    return -1;
  }
  const ssize_t length = static_cast<ssize_t>(strlen(text));
  errno = ENOSPC;  // the error of a write that is only short
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

// Allocates the page of the device now: without room for it, a store into the mapping would kill the process.
int reserve_page(int device) {
  int error;
  do {
    error = posix_fallocate(device, 0, kDeviceBytes);
  } while (error == EINTR);
  return error == 0 ? 0 : refuse(error);
}

// Makes the device under a temporary name and links it to its own name. A device that another process has linked
// first stays.
int make_device(int folder, const char* name) {
  const TemporaryName temporary;
  const Descriptor device(make_file(folder, temporary, O_RDWR));
  if (!device.open()) {
    return -1;
  }
  int error = 0;
  if (reserve_page(device.get()) != 0) {
    error = errno;
  } else if (linkat(folder, temporary.text, folder, name, 0) != 0 && errno != EEXIST) {
    error = errno;
  }
  unlinkat(folder, temporary.text, 0);
  return error == 0 ? 0 : refuse(error);
}

int open_device(int folder, const char* name, int access) {
  const int flags = access | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  int number = openat(folder, name, flags);
  if (number < 0 && errno == ENOENT && make_device(folder, name) == 0) {
    number = openat(folder, name, flags);
  }
  Descriptor device(number);
  struct stat status;
  if (!is_private(device, &status)) {
    return -1;
  }
  if (!S_ISREG(status.st_mode)) {
    return refuse(ENXIO);
  }
  return access == O_RDONLY || reserve_page(device.get()) == 0 ? device.release() : -1;
}

}  // namespace

int open_device_folder(const char* root, int access) {
  const Descriptor folder(open_folder(AT_FDCWD, root));
  const auto below = [](const Descriptor& parent, const char* name) {
    return Descriptor(parent.open() ? open_folder(parent.get(), name) : -1);
  };
  const Descriptor sysfs = below(folder, "sysfs");
  const Descriptor uio = below(sysfs, "uio0");
  const Descriptor maps = below(uio, "maps");
  const Descriptor map = below(maps, "map0");
  if (!map.open() || place_maps(map.get()) != 0) {
    return -1;
  }
  const Descriptor dev = below(folder, "dev");
  return dev.open() ? open_device(dev.get(), "uio0", access) : -1;
}

}  // namespace zut
