// Finds and maps the jiffies device.
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "libtirn/base/bounds.h"
#include "libtirn/base/guard.h"
#include "libtirn/base/jiffies_device.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "tirn/jiffies.h"

using namespace tirn;

namespace {

constexpr size_t kChildSize = 128;
constexpr size_t kPathSize = 128;

// Finds the first entry of the folder whose name begins with "uio". Returns whether there is one.
bool find_child(const char* folder, char (&child)[kChildSize]) {
  const Folder directory(opendir(folder));
  while (directory != nullptr) {
    const dirent* const entry = readdir(directory.get());
    if (entry == nullptr) {
      break;
    }
    if (std::strncmp(entry->d_name, "uio", 3) == 0) {
      if (strcpy_s(child, sizeof child, entry->d_name) == 0) {
        return true;
      }
      TIRN_ERROR_AS("jiffies_uio_adp_open", "strcpy_s failed.");
    }
  }
  return false;
}

// The files of the device's map, in the reverse of the order in which they are closed.
enum MapFile { kOffset, kSize, kAddr, kMapFiles };
constexpr struct {
  const char* path;
  const char* failure;
} kMapRows[kMapFiles] = {{"/maps/map0/offset", "Kesa jiffies open map failed, errno=%d."},
                         {"/maps/map0/size", "Kesa jiffies open size_fd map failed, errno=%d."},
                         {"/maps/map0/addr", "Kesa jiffies open addr_fd map failed, errno=%d."}};

// Opens a file of the map. Logs a failure.
Fd open_map_file(const char* folder, const char* child, MapFile which) {
  char path[2 * kPathSize + kChildSize];
  sprintf_s(path, sizeof path, "%s%s%s", folder, child, kMapRows[which].path);
  Fd file(open(path, O_RDONLY | O_CLOEXEC));
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // the formats of the table
  if (!file) {
    TIRN_ERROR_AS("jiffies_uio_adp_open", kMapRows[which].failure, errno);
  }
#pragma GCC diagnostic pop
  return file;
}

// The first 32 bytes of a file of the map; empty if it cannot be read.
struct NumberText {
  char text[33]{};
};
NumberText read_number(const Fd& file) {
  NumberText number;
  [[maybe_unused]] const ssize_t length = read(file.get(), number.text, sizeof number.text - 1);
  return number;
}

// Returns whether the counter at `offset` can be read: it must be aligned and lie wholly in the mapping and, if the
// device is a regular file, within the present size of that file.
bool holds_counter(const Fd& device, uint64_t size, uint64_t offset) {
  constexpr uint64_t kCounter = sizeof(uint64_t);
  struct stat status;
  if (offset % kCounter != 0 || size < kCounter || offset > size - kCounter || fstat(device.get(), &status) != 0) {
    return false;
  }
  return !S_ISREG(status.st_mode) || offset + kCounter <= static_cast<uint64_t>(status.st_size);
}

void* map_device(const Fd& device, uint64_t size, uint64_t offset) {
  if (!holds_counter(device, size, offset)) {
    errno = EINVAL;
    return MAP_FAILED;
  }
  return mmap(nullptr, size, PROT_READ, MAP_PRIVATE, device.get(), 0);
}

}  // namespace

int jiffies_uio_adp_open() {
  const NoCancellation guard;
  const DevicePaths base = jiffies_device();
  char child[kChildSize]{};
  if (!find_child(base.sysfs, child)) {
    return TIRN_ERROR("Kesa jiffies get child dir (%s) failed, errno=%d.", child, errno), kFail;
  }
  char path[kPathSize];
  sprintf_s(path, sizeof path, "%s%s", base.dev, child);  // a path that does not fit is emptied, and the open fails
  const Fd device(open(path, O_RDONLY | O_CLOEXEC));
  if (!device) {
    return kFail;
  }
  g_jiffies_uio.dev_fd = device.get();
  Fd files[kMapFiles];
  for (const MapFile which : {kAddr, kSize, kOffset}) {
    files[which] = open_map_file(base.sysfs, child, which);
    if (!files[which]) {
      return kFail;
    }
  }
  const uint64_t addr = std::strtoul(read_number(files[kAddr]).text, nullptr, 0);
  const auto size = static_cast<uint64_t>(std::strtol(read_number(files[kSize]).text, nullptr, 0));
  const auto offset = static_cast<uint64_t>(std::strtol(read_number(files[kOffset]).text, nullptr, 0));
  const void* const mapping = map_device(device, size, offset);
  if (mapping == MAP_FAILED) {
    return TIRN_ERROR("Kesa jiffies mmap2, errno=%d.", errno), kFail;
  }
  g_jiffies_uio.addr_fd = files[kAddr].get();
  g_jiffies_uio.size_fd = files[kSize].get();
  g_jiffies_uio.offset_fd = files[kOffset].get();
  g_jiffies_uio.addr = addr;
  g_jiffies_uio.size = size;
  const auto* const counter =
      static_cast<const uint64_t*>(static_cast<const void*>(static_cast<const char*>(mapping) + offset));
  // Pairs with the acquire in kesa_get_jiffies.
  std::atomic_ref(g_jiffies_uio.jiffies).store(counter, std::memory_order_release);
  return kOk;
}

int jiffies_uio_adp_close() {
  const NoCancellation guard;  // a cancelled thread would leave the descriptor open
  return close(g_jiffies_uio.dev_fd);
}
