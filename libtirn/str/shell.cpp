#include "libtirn/str/shell.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace tirn {
namespace {

#ifndef TIRN_SHELL
#define TIRN_SHELL nullptr
#endif
constinit std::atomic<const char*> g_shell{TIRN_SHELL};
constexpr char kSh[] = "/bin/sh";
constexpr char kBash[] = "/bin/bash";

bool is_same_file(const char* one, const char* other) {
  struct stat of_one, of_other;
  return stat(one, &of_one) == 0 && stat(other, &of_other) == 0 && of_one.st_dev == of_other.st_dev &&
         of_one.st_ino == of_other.st_ino;
}

// Commands end in `&>/dev/null`, which many a /bin/sh takes for 'in the background, and empty that file': they would
// always succeed. bash keeps its own reading under the name sh. A trial run would tell more, but be a child of a
// program that has asked for none.
const char* find_shell() { return access(kBash, X_OK) == 0 && !is_same_file(kSh, kBash) ? kBash : kSh; }

// Not in line: vfork's second return must find nothing of it in registers.
[[gnu::noinline]] const char* shell() {
  const char* path = g_shell.load(std::memory_order_relaxed);
  if (path == nullptr) {
    path = find_shell();  // the same for all who come at once
    g_shell.store(path, std::memory_order_relaxed);
  }
  return path;
}

}  // namespace

pid_t start_shell(const char* command, const PipeEnds* ends) {
  const char* const path = shell();
  const int error = errno;
  // NOLINTBEGIN(clang-analyzer-*): posix_spawn costs more, and what may follow vfork is kept to.
  const pid_t child = vfork();
  if (child != 0) {
    if (child > 0) {
      errno = error;  // the child's calls have written to it
    }
    return child;
  }
  // The child runs in the parent's memory while the other threads go on: it touches nothing but descriptors.
  if (ends != nullptr) {
    close(ends->ours);
    if (ends->childs != ends->standard) {
      dup2(ends->childs, ends->standard);
      close(ends->childs);
    }
  }
  execl(path, "sh", "-c", command, static_cast<char*>(nullptr));
  _exit(127);
  // NOLINTEND(clang-analyzer-*)
}

int wait_for_end(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) == -1) {
    if (errno != EINTR) {
      return -1;
    }
  }
  return status;
}

}  // namespace tirn
