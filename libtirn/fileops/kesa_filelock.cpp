// Implements the record locks of tirn/fileops.h.
#include <fcntl.h>

#include <cerrno>

#include "libtirn/base/log.h"
#include "tirn/fileops.h"

namespace {

struct flock range_of(const kesa_file_lock& lock, short type) {
  struct flock range {};
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = lock.start;
  range.l_len = lock.len;
  return range;
}

}  // namespace

int kesa_lockfile(int fd, const struct kesa_file_lock* lock) {
  if (lock == nullptr) {
    return TIRN_ERROR("Param is NULL."), -EINVAL;
  }
  const bool writes = lock->mode == KESA_FILE_LOCK_WRITE || lock->mode == KESA_FILE_LOCK_TRY_WRITE;
  const bool waits = lock->mode != KESA_FILE_LOCK_TRY_READ && lock->mode != KESA_FILE_LOCK_TRY_WRITE;
  struct flock range = range_of(*lock, writes ? F_WRLCK : F_RDLCK);
  int result = 0;
  do {
    result = fcntl(fd, waits ? F_SETLKW : F_SETLK, &range);
  } while (result != 0 && waits && errno == EINTR);
  return result;
}

int kesa_unlockfile(int fd, const struct kesa_file_lock* lock) {
  if (lock == nullptr) {
    return TIRN_ERROR("Param is NULL."), -EINVAL;
  }
  struct flock range = range_of(*lock, F_UNLCK);
  return fcntl(fd, F_SETLK, &range);
}
