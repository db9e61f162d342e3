// Implements the copy of tirn/fileops.h.
#include <fcntl.h>

#include <cerrno>

#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "tirn/fileops.h"

using namespace tirn;

int kesa_copy(const char* src, const char* dst) {
  if (src == nullptr || dst == nullptr) {
    return TIRN_ERROR("Param is NULL."), -EINVAL;
  }
  const NoCancellation guard;  // a cancellation would leave the files open
  const Fd from(kesa_open(src, O_RDONLY | O_CLOEXEC, 0));
  if (!from) {
    return TIRN_WARNING("Open srcFile %s error.", src), -ECANCELED;
  }
  const Fd to(kesa_open(dst, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!to) {
    return TIRN_ERROR("Open pDestFile %s error.", dst), -ECANCELED;
  }
  char block[128];
  ssize_t written = 0;
  do {
    const ssize_t count = kesa_read(from.get(), block, sizeof block);
    if (count < 0) {
      return TIRN_ERROR("copydata read from srcFile=%s to destfile=%s error.", src, dst), -ECANCELED;
    }
    written = kesa_write(to.get(), block, static_cast<size_t>(count));
    if (written < 0) {
      return TIRN_ERROR("copydata WRITE from srcFile=%s to destfile=%s error.", src, dst), -ECANCELED;
    }
  } while (written == ssize_t{sizeof block});
  return kOk;
}
