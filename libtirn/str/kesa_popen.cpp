// Implements the functions of tirn/str.h that run a command with a pipe to it.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/str/shell.h"
#include "tirn/str.h"

using namespace tirn;

namespace {

// The process id of the child at the other end of each descriptor, 0 if there is none. The table is made once, with
// an entry for each descriptor that the process may have at that time. An entry belongs to the owner of its
// descriptor.
constinit std::atomic<int32_t*> g_children{nullptr};

using Table = TaggedBlock<int32_t>;

// The place that the allocator's log lines name for the table, and not the function that stands here.
constexpr FreeTagged kFreedAt{"kesa_popen_init", 52};

// Returns a zeroed block of the tagged heap, or NULL. The block may be gigabytes long, so it comes from calloc, which
// does not touch pages that are fresh from the system.
Table make_table(uint32_t entries) {
  const uint32_t size = entries * uint32_t{sizeof(int32_t)};
  auto* const head = static_cast<kesa_mem_head*>(std::calloc(1, sizeof(kesa_mem_head) + size));
  if (head == nullptr) {
    TIRN_ERROR_AS("kesa_mallocsubstandard", "Malloc memory fails. PID: (%d), size: (%d), type: (%d).",
                  static_cast<int>(TIRN_MODULE_ID), static_cast<int>(size), static_cast<int>(KESA_MEM_TYPE_STANDARD));
    return nullptr;
  }
  kesa_mem_init_head(head, size, TIRN_MODULE_ID);
  kesa_mem_stat_add(TIRN_MODULE_ID, size);
  return Table(reinterpret_cast<int32_t*>(head + 1), kFreedAt);
}

int32_t* child_table() {
  int32_t* table = g_children.load(std::memory_order_acquire);
  if (table != nullptr) {
    return table;
  }
  const int entries = getdtablesize();
  if (entries < 1) {
    errno = EMFILE;
    return nullptr;
  }
  constexpr size_t kMost = (UINT32_MAX - sizeof(kesa_mem_head)) / sizeof(int32_t);  // entries of a tagged block
  Table made = make_table(static_cast<uint32_t>(std::min(static_cast<size_t>(entries), kMost)));
  if (made == nullptr) {
    return nullptr;
  }
  // Pairs with the acquire loads of g_children: a thread that sees the table sees it zeroed.
  return g_children.compare_exchange_strong(table, made.get(), std::memory_order_acq_rel) ? made.release() : table;
}

bool is_in(const int32_t* table, int fd) {
  const auto* const head = reinterpret_cast<const kesa_mem_head*>(table) - 1;
  return fd >= 0 && static_cast<uint32_t>(fd) < head->size / sizeof(int32_t);
}

std::atomic_ref<int32_t> child_at(int32_t* table, int fd) { return std::atomic_ref(table[fd]); }

// Clears the table's entry for the stream's descriptor. If it holds a child, that is not this stream's, but that of
// an earlier pipe on the same descriptor which was not closed by kesa_pclose.
FILE* without_child(FILE* stream) {
  int32_t* const table = g_children.load(std::memory_order_acquire);
  if (stream != nullptr && table != nullptr && is_in(table, fileno(stream))) {
    child_at(table, fileno(stream)).store(0, std::memory_order_relaxed);
  }
  return stream;
}

// Starts a child with a pipe, stores the child's process id and returns the stream, or NULL. If `table` is not NULL,
// the stream's descriptor must have an entry in it; otherwise the call fails with EMFILE.
FILE* open_pipe(const char* function, const char* cmd, const char* mode, const int32_t* table, int* child) {
  const NoCancellation guard;  // most important in the child, which runs on this stack
  int pdes[2];
  if (pipe(pdes) != 0) {
    return nullptr;
  }
  const PipeEnds ends =
      *mode == 'r' ? PipeEnds{pdes[0], pdes[1], fileno(stdout)} : PipeEnds{pdes[1], pdes[0], fileno(stdin)};
  const bool has_room = table == nullptr || is_in(table, ends.ours);
  const pid_t pid = has_room ? start_shell(cmd, &ends) : -1;
  if (pid < 0) {
    const int error = has_room ? errno : EMFILE;
    close(pdes[0]);
    close(pdes[1]);
    errno = error;
    return nullptr;
  }
  close(ends.childs);
  FILE* const iop = fdopen(ends.ours, mode);
  if (iop == nullptr) {
    TIRN_INFO_AS(function, "Iop is NULL, modes:(%s), pdes[0]=(%d), pdes[1]=(%d), errno:(%d).", mode, pdes[0], pdes[1],
                 errno);
    return nullptr;
  }
  *child = pid;
  return iop;
}

}  // namespace

FILE* kesa_popen(const char* cmd, const char* mode) {
  if (kesa_ismodevalid(mode) != kOk) {
    return nullptr;
  }
  int32_t* const table = child_table();
  if (table == nullptr) {
    return nullptr;
  }
  int child;
  FILE* const stream = open_pipe(__func__, cmd, mode, table, &child);
  if (stream != nullptr) {
    child_at(table, fileno(stream)).store(child, std::memory_order_relaxed);
  }
  return stream;
}

FILE* kesa_popen_with_pid(const char* cmd, const char* mode, int* pid) {
  return without_child(open_pipe(__func__, cmd, mode, nullptr, pid));
}

FILE* kesa_popen_s(const char* cmd, const char* mode, const char* white) {
  if (cmd == nullptr || isDangerousCmd(cmd, white) != 0) {
    return nullptr;
  }
  return kesa_popen(cmd, mode);
}

FILE* kesa_popen_s_with_pid(const char* cmd, const char* mode, const char* white, int* pid) {
  if (cmd == nullptr || pid == nullptr || kesa_ismodevalid(mode) != kOk || isDangerousCmd(cmd, white) != 0) {
    return nullptr;
  }
  return kesa_popen_with_pid(cmd, mode, pid);
}

FILE* popen_s(const char* cmd, const char* mode, const char* white) {
  if (isDangerousCmd(cmd, white) != 0 || kesa_ismodevalid(mode) != kOk) {
    return nullptr;
  }
  const NoCancellation guard;
  return without_child(popen(cmd, mode));
}

int kesa_pclose(FILE* stream) {
  const int fd = fileno(stream);
  int32_t* const table = g_children.load(std::memory_order_acquire);
  if (table == nullptr || !is_in(table, fd)) {
    return kFail;
  }
  const pid_t child = child_at(table, fd).load(std::memory_order_relaxed);
  if (child == 0) {
    return kFail;
  }
  const NoCancellation guard;  // a cancellation would leave the descriptor open or the child unreaped
  // Clear the entry before fclose, after which another thread can get the descriptor.
  child_at(table, fd).store(0, std::memory_order_relaxed);
  fclose(stream);
  sigset_t blocked, former;
  sigemptyset(&blocked);
  for (const int signal : {SIGINT, SIGQUIT, SIGHUP}) {
    sigaddset(&blocked, signal);
  }
  // On Linux sigprocmask changes the mask of the calling thread.
  sigprocmask(SIG_BLOCK, &blocked, &former);  // NOLINT(concurrency-mt-unsafe)
  const int status = wait_for_end(child);
  sigprocmask(SIG_SETMASK, &former, nullptr);  // NOLINT(concurrency-mt-unsafe)
  return status;
}

FILE* __wrap_popen(const char* cmd, const char* mode) { return kesa_popen(cmd, mode); }

int __wrap_pclose(FILE* stream) { return kesa_pclose(stream); }
