#include "tirn/fileops.h"

#include <fcntl.h>
#include <unistd.h>

#include "libtirn/base/cancellation.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"

int kesa_access(const char* path, int mode) {
  if (path == nullptr) {
    TIRN_ERROR("pFilePath is NULL.");
    return tirn::kFail;
  }
  return access(path, mode);
}

int kesa_open(const char* path, int flags, mode_t mode) {
  if (path == nullptr) {
    TIRN_ERROR("pFilePath is NULL.");
    return tirn::kFail;
  }
  return open(path, flags, mode);
}

ssize_t kesa_read(int fd, void* buffer, size_t size) {
  if (buffer == nullptr) {
    TIRN_ERROR("pBuf is NULL.");
    return tirn::kFail;
  }
  return read(fd, buffer, size);
}

ssize_t kesa_write(int fd, const void* buffer, size_t size) {
  if (buffer == nullptr) {
    TIRN_ERROR("pBuf is NULL.");
    return tirn::kFail;
  }
  return write(fd, buffer, size);
}

off_t kesa_lseek(int fd, off_t offset, int whence) { return lseek(fd, offset, whence); }

int kesa_sync(int fd) { return fsync(fd); }

int kesa_close(int fd) {
  const tirn::NoCancellation guard;
  return close(fd);
}

int kesa_stat(const char* path, struct stat* buffer) {
  if (path == nullptr) {
    TIRN_ERROR("pPath is NULL.");
    return tirn::kFail;
  }
  return stat(path, buffer);
}

int kesa_statfs(const char* path, struct statfs* buffer) {
  if (path == nullptr) {
    TIRN_ERROR("pPath is NULL.");
    return tirn::kFail;
  }
  if (buffer == nullptr) {
    TIRN_ERROR("pBuf is NULL.");
    return tirn::kFail;
  }
  return statfs(path, buffer);
}
