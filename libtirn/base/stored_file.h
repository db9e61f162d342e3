// Finds out which files may be read ahead and sought back.
#ifndef TIRN_BASE_STORED_FILE_H
#define TIRN_BASE_STORED_FILE_H

#include <sys/stat.h>

namespace tirn {

// Returns whether the file has stored content. Files generated on read (/proc, /sys) have no blocks; after a seek
// back they may read differently.
inline bool is_stored_file(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_blocks > 0;
}

}  // namespace tirn

#endif
