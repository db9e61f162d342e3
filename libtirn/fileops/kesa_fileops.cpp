// Implements the checked system calls of tirn/fileops.h.
#include "tirn/fileops.h"

#include <fcntl.h>
#include <unistd.h>

#include "libtirn/base/cancellation.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"

using namespace tirn;

int kesa_access(const char* path, int mode) {
  if (path == nullptr) {
    return TIRN_ERROR("pFilePath is NULL."), kFail;
  }
  return access(path, mode);
}

int kesa_open(const char* path, int flags, mode_t mode) {
  if (path == nullptr) {
    return TIRN_ERROR("pFilePath is NULL."), kFail;
  }
  return open(path, flags, mode);
}

ssize_t kesa_read(int fd, void* buffer, size_t size) {
  if (buffer == nullptr) {
    return TIRN_ERROR("pBuf is NULL."), kFail;
  }
  return read(fd, buffer, size);
}

ssize_t kesa_write(int fd, const void* buffer, size_t size) {
  if (buffer == nullptr) {
    return TIRN_ERROR("pBuf is NULL."), kFail;
  }
  return write(fd, buffer, size);
}

off_t kesa_lseek(int fd, off_t offset, int whence) { return lseek(fd, offset, whence); }

int kesa_sync(int fd) { return fsync(fd); }

int kesa_close(int fd) {
  const NoCancellation guard;
  return close(fd);
}

int kesa_stat(const char* path, struct stat* buffer) {
  if (path == nullptr) {
    return TIRN_ERROR("pPath is NULL."), kFail;
  }
  return stat(path, buffer);
}

int kesa_statfs(const char* path, struct statfs* buffer) {
  if (path == nullptr) {
    return TIRN_ERROR("pPath is NULL."), kFail;
  }
  if (buffer == nullptr) {
    return TIRN_ERROR("pBuf is NULL."), kFail;
  }
  return statfs(path, buffer);
}
