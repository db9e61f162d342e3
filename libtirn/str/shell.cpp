// Finds the shell that runs commands, starts it and waits for its end.
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

// Chooses the shell. Command lines end in `&>/dev/null`, which many shells that are installed as /bin/sh read as "run
// in the background, and empty that file": such a command would always succeed. bash understands `&>` even under the
// name sh. A trial run would be a surer test, but it would start a child in a program that has not asked for one.
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
    found = find_shell();  // concurrent callers find the same one
    g_shell.store(found, std::memory_order_relaxed);
  }
  return *found;
}

// How the shell is started. Unlike smaller shells, bash takes functions, options and start-up files from its
// environment, and so runs code that another user may have put there. In its privileged mode (-p) it ignores them,
// and CDPATH and GLOBIGNORE too. If the effective ids are not the real ones, bash enters this mode by itself and
// gives the effective ids up. With -p it would keep them, so -p is given only if the ids are the same.
struct Start {
  const char* path;
  const char* option;
};

// Not inlined: when vfork returns for the second time, no value of this function may be in a register.
[[gnu::noinline]] Start how_to_start() {
  const Shell& found = shell();
  const bool asks = found.is_bash && geteuid() == getuid() && getegid() == getgid();
  return {found.path, asks ? "-pc" : "-c"};
}

}  // namespace

pid_t start_shell(const char* command, const PipeEnds* ends) {
  const Start start = how_to_start();
  const int error = errno;
  // NOLINTBEGIN(clang-analyzer-*): posix_spawn costs more, and the child does only what is safe after vfork.
  const pid_t child = vfork();
  if (child != 0) {
    if (child > 0) {
      errno = error;  // the child's calls may have changed it
    }
    return child;
  }
  // The child runs in the parent's memory while the parent's other threads go on, so it touches nothing but
  // descriptors.
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
