// Which descriptors can be read ahead of what is wanted of them.
#ifndef TIRN_BASE_STORED_FILE_H
#define TIRN_BASE_STORED_FILE_H

#include <sys/stat.h>

namespace tirn {

// Files that the kernel makes up as they are read own no blocks; they might read otherwise after a step back.
inline bool is_stored_file(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_blocks > 0;
}

}  // namespace tirn

#endif
