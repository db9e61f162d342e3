#include "libtirn/str/shell.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace tirn {
namespace {

constexpr char kBash[] = "/bin/bash";
#ifdef TIRN_SHELL
constexpr char kSh[] = TIRN_SHELL;
constexpr bool kIsFixed = true;
#else
constexpr char kSh[] = "/bin/sh";
constexpr bool kIsFixed = false;
#endif

struct Shell {
  const char* path;
  bool is_bash;
};
constexpr Shell kOther{kSh, false}, kBashAsSh{kSh, true}, kOwnBash{kBash, true};
constinit std::atomic<const Shell*> g_shell{nullptr};

bool is_same_file(const char* one, const char* other) {
  struct stat of_one, of_other;
  return stat(one, &of_one) == 0 && stat(other, &of_other) == 0 && of_one.st_dev == of_other.st_dev &&
         of_one.st_ino == of_other.st_ino;
}

// Commands end in `&>/dev/null`, which many a /bin/sh takes for 'in the background, and empty that file': they would
// always succeed. bash keeps its own reading under the name sh. A trial run would tell more, but be a child of a
// program that has asked for none.
const Shell* find_shell() {
  if (access(kBash, X_OK) != 0) {
    return &kOther;
  }
  if (is_same_file(kSh, kBash)) {
    return &kBashAsSh;
  }
  return kIsFixed ? &kOther : &kOwnBash;
}

const Shell& shell() {
  const Shell* found = g_shell.load(std::memory_order_relaxed);
  if (found == nullptr) {
    found = find_shell();  // the same for all who come at once
    g_shell.store(found, std::memory_order_relaxed);
  }
  return *found;
}

// How the shell is started. Unlike smaller shells, bash takes functions, options and start-up files from its
// environment, and with them code of whoever made that. In its privileged mode it does not (nor CDPATH and GLOBIGNORE).
// Where the effective ids are not the real ones, it goes there by itself and gives the effective ids up; asked to, it
// would keep them.
struct Start {
  const char* path;
  const char* option;
};

// Not in line: vfork's second return must find nothing of it in registers.
[[gnu::noinline]] Start how_to_start() {
  const Shell& found = shell();
  const bool asks = found.is_bash && geteuid() == getuid() && getegid() == getgid();
  return {found.path, asks ? "-pc" : "-c"};
}

}  // namespace

pid_t start_shell(const char* command, const PipeEnds* ends) {
  const Start start = how_to_start();
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
  execl(start.path, "sh", start.option, command, static_cast<char*>(nullptr));
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
