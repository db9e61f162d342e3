#include "faults.h"

#include <dirent.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "tirn/timer.h"

namespace tirn::test {
namespace {

constexpr size_t kMostBlocks = 16384;

// The state of the one living Faults object, for the replacements.
struct State {
  FaultPlan plan;
  pthread_t timer_thread;  // its calls do not count: they come at any time
  std::atomic<bool> failing;
  std::atomic<uint32_t> calls;
  uintptr_t base;
  Fault fault;
  std::atomic<uint32_t> inheritable;
  std::atomic<bool> has_fault;  // stored with release, pairs with the acquire in fault()
  std::atomic<void*> blocks[kMostBlocks];
};
constinit State g_state{};

void keep_block(void* block) {
  for (auto& place : g_state.blocks) {
    void* none = nullptr;
    if (block == nullptr || place.compare_exchange_strong(none, block)) {
      return;
    }
  }
  std::abort();
}

void forget_block(void* block) {
  for (auto& place : g_state.blocks) {
    void* expected = block;
    if (block == nullptr || place.compare_exchange_strong(expected, nullptr)) {
      return;
    }
  }
}

bool is_to_fail(const char* function, unsigned kinds, uintptr_t caller) {
  if (!g_state.failing.load(std::memory_order_acquire) || pthread_self() == g_state.timer_thread) {
    return false;
  }
  const FaultPlan& plan = g_state.plan;
  const bool is_meant =
      plan.function != nullptr ? std::strcmp(plan.function, function) == 0 : (plan.kinds & kinds) != 0;
  if (!is_meant) {
    return false;
  }
  const uint32_t number = g_state.calls.fetch_add(1) + 1;
  if (plan.number == 0 || number < plan.number || (number > plan.number && !plan.and_later)) {
    return false;
  }
  if (number == plan.number) {
    g_state.fault.number = number;
    g_state.fault.caller = caller - g_state.base;
    std::strncpy(g_state.fault.function, function, sizeof g_state.fault.function - 1);
    g_state.fault.happened = true;
    g_state.has_fault.store(true, std::memory_order_release);
  }
  if (plan.kinds == kCancellations) {
    pthread_cancel(pthread_self());
    return false;
  }
  return true;
}

template <size_t N>
struct Name {
  consteval Name(const char (&from)[N]) { std::copy_n(from, N, text); }
  char text[N];
};

// Counts a descriptor that has just been opened, if a child would inherit it.
void note_descriptor(int fd) {
  // Uses the raw system call, as the program's fcntl may be redirected.
  if (fd >= 0 && (syscall(SYS_fcntl, fd, F_GETFD) & FD_CLOEXEC) == 0) {
    g_state.inheritable.fetch_add(1);
  }
}
void note_descriptor(FILE* file) { note_descriptor(file != nullptr ? fileno(file) : -1); }

// Returns whether the function opens a descriptor that its caller closes again or that the library keeps.
constexpr bool opens(std::string_view name) {
  return name == "open" || name == "fopen" || name == "socket" || name == "accept4";
}

template <typename Result>
Result as_result(long value) {
  if constexpr (std::is_pointer_v<Result>) {
    return reinterpret_cast<Result>(value);
  } else {
    return static_cast<Result>(value);
  }
}

// Replaces one function: fails if that is planned, otherwise calls the real function.
template <Name kName, typename Function, unsigned kKinds, int kError, long kFailure>
struct Fallible;

template <Name kName, typename Result, typename... Arguments, bool kNoexcept, unsigned kKinds, int kError,
          long kFailure>
struct Fallible<kName, Result(Arguments...) noexcept(kNoexcept), kKinds, kError, kFailure> {
  static inline Result (*real)(Arguments...) = nullptr;

  static Result call(Arguments... arguments) {
    if (is_to_fail(kName.text, kKinds, reinterpret_cast<uintptr_t>(__builtin_return_address(0)))) {
      if (kFailure != kError) {
        errno = kError;
      }
      return as_result<Result>(kFailure);
    }
    const Result result = real(arguments...);
    if constexpr (kKinds == kHeapFaults) {
      keep_block(result);
    } else if constexpr (opens(std::string_view(kName.text))) {
      const int error = errno;
      note_descriptor(result);
      errno = error;
    }
    return result;
  }
};

void (*g_real_free)(void*) = nullptr;

void release(void* block) {
  forget_block(block);
  g_real_free(block);
}

// A log library that writes is a cancellation point, but under LogCapture it does not write. The replacement adds the
// cancellation point.
void (*g_real_hurn)(uint32_t, uint32_t, const char*, uint32_t, const char*, uint32_t, const char*, ...) = nullptr;

__attribute__((format(printf, 7, 8))) void write_log(uint32_t module, uint32_t level, const char* file, uint32_t line,
                                                     const char* function, uint32_t, const char* format, ...) {
  char text[HURN_LINE_MAX];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  is_to_fail("hurn", kCancellations, reinterpret_cast<uintptr_t>(__builtin_return_address(0)));
  pthread_testcancel();
  g_real_hurn(module, level, file, line, function, 0, "%s", text);
}

struct Row {
  const char* name;
  void* replacement;
  void (*set_real)(void*);
};

// A function that sets errno and returns `kFailure` when it fails.
template <Name kName, typename Function, unsigned kKinds, int kError, long kFailure>
Row row() {
  using Stand = Fallible<kName, Function, kKinds, kError, kFailure>;
  return {kName.text, reinterpret_cast<void*>(Stand::call),
          [](void* real) { Stand::real = reinterpret_cast<decltype(Stand::real)>(real); }};
}

// A function that returns the error itself.
template <Name kName, typename Function, unsigned kKinds, int kError>
Row error_row() {
  return row<kName, Function, kKinds, kError, kError>();
}

// A function that is not made to fail. Its calls only serve as cancellation points.
template <Name kName, typename Function>
Row point_row() {
  return row<kName, Function, kCancellations, 0, 0>();
}

using Open = int(const char*, int, mode_t);
using OpenAt = int(int, const char*, int, mode_t);
using Control = int(int, int, long);

const Row kLogRow = {"hurn", reinterpret_cast<void*>(write_log),
                     [](void* real) { g_real_hurn = reinterpret_cast<decltype(g_real_hurn)>(real); }};

// The functions that the libraries call. When a library begins to call another function that can fail, that function
// needs a row. vfork has none: its child must not return through a frame that the parent still needs.
const Row kRows[] = {
    row<"malloc", decltype(malloc), kHeapFaults, ENOMEM, 0>(),
    row<"calloc", decltype(calloc), kHeapFaults, ENOMEM, 0>(),
    {"free", reinterpret_cast<void*>(release),
     [](void* real) { g_real_free = reinterpret_cast<decltype(g_real_free)>(real); }},
    row<"open", Open, kFileFaults | kCancellations, EMFILE, -1>(),
    row<"openat", OpenAt, kFileFaults | kCancellations, EMFILE, -1>(),
    row<"fopen", decltype(fopen), kFileFaults | kCancellations, EMFILE, 0>(),
    row<"fdopen", decltype(fdopen), kFileFaults, ENOMEM, 0>(),
    row<"popen", decltype(popen), kFileFaults | kCancellations, EMFILE, 0>(),
    row<"opendir", decltype(opendir), kFileFaults | kCancellations, EMFILE, 0>(),
    row<"socket", decltype(socket), kFileFaults, EMFILE, -1>(),
    row<"bind", int(int, const sockaddr*, socklen_t), kFileFaults, EADDRINUSE, -1>(),
    row<"listen", decltype(listen), kFileFaults, EADDRINUSE, -1>(),
    row<"connect", int(int, const sockaddr*, socklen_t), kFileFaults | kCancellations, ECONNREFUSED, -1>(),
    row<"pipe", decltype(pipe), kFileFaults, EMFILE, -1>(),
    row<"fcntl", Control, kFileFaults | kCancellations, EBADF, -1>(),
    row<"read", decltype(read), kFileFaults | kCancellations, EIO, -1>(),
    row<"__read_chk", ssize_t(int, void*, size_t, size_t), kFileFaults | kCancellations, EIO, -1>(),
    row<"write", decltype(write), kFileFaults | kCancellations, ENOSPC, -1>(),
    row<"fgets", decltype(fgets), kFileFaults | kCancellations, EIO, 0>(),
    row<"getc", decltype(getc), kFileFaults | kCancellations, EIO, EOF>(),
    row<"fsync", decltype(fsync), kFileFaults | kCancellations, EIO, -1>(),
    row<"fstat", int(int, struct stat*), kFileFaults, EIO, -1>(),
    row<"stat", int(const char*, struct stat*), kFileFaults, EACCES, -1>(),
    row<"rename", decltype(rename), kFileFaults, EROFS, -1>(),
    row<"ftruncate", decltype(ftruncate), kFileFaults, EFBIG, -1>(),
    row<"fallocate", decltype(fallocate), kFileFaults, ENOSPC, -1>(),
    error_row<"posix_fallocate", decltype(posix_fallocate), kFileFaults, ENOSPC>(),
    row<"mmap", decltype(mmap), kFileFaults, ENOMEM, -1>(),
    row<"shm_open", decltype(shm_open), kFileFaults | kCancellations, ENFILE, -1>(),
    row<"shmget", decltype(shmget), kFileFaults, ENOSPC, -1>(),
    row<"shmat", decltype(shmat), kFileFaults, ENOMEM, -1>(),
    row<"sem_init", decltype(sem_init), kThreadFaults, ENOSPC, -1>(),
    error_row<"pthread_create", decltype(pthread_create), kThreadFaults, EAGAIN>(),
    error_row<"pthread_attr_init", decltype(pthread_attr_init), kThreadFaults, ENOMEM>(),
    error_row<"pthread_attr_setstacksize", decltype(pthread_attr_setstacksize), kThreadFaults, EINVAL>(),
    error_row<"pthread_attr_setdetachstate", decltype(pthread_attr_setdetachstate), kThreadFaults, EINVAL>(),
    error_row<"pthread_getattr_np", decltype(pthread_getattr_np), kThreadFaults, ENOMEM>(),
    error_row<"pthread_key_create", decltype(pthread_key_create), kThreadFaults, EAGAIN>(),
    error_row<"pthread_setspecific", decltype(pthread_setspecific), kThreadFaults, ENOMEM>(),
    error_row<"pthread_mutex_init", decltype(pthread_mutex_init), kThreadFaults, EAGAIN>(),
    error_row<"pthread_mutexattr_init", decltype(pthread_mutexattr_init), kThreadFaults, ENOMEM>(),
    error_row<"pthread_condattr_init", decltype(pthread_condattr_init), kThreadFaults, ENOMEM>(),
    error_row<"pthread_condattr_setclock", decltype(pthread_condattr_setclock), kThreadFaults, EINVAL>(),
    error_row<"pthread_cond_init", decltype(pthread_cond_init), kThreadFaults, ENOMEM>(),
    error_row<"pthread_sigmask", decltype(pthread_sigmask), kThreadFaults, EINVAL>(),
    point_row<"close", decltype(close)>(),
    point_row<"fclose", decltype(fclose)>(),
    point_row<"readdir", decltype(readdir)>(),
    point_row<"closedir", decltype(closedir)>(),
    point_row<"select", decltype(select)>(),
    point_row<"nanosleep", decltype(nanosleep)>(),
    point_row<"sem_wait", decltype(sem_wait)>(),
    point_row<"waitpid", decltype(waitpid)>(),
    point_row<"system", decltype(system)>(),
    point_row<"accept4", int(int, sockaddr*, socklen_t*, int)>(),
    point_row<"recv", decltype(recv)>(),
    point_row<"recvmsg", decltype(recvmsg)>(),
    point_row<"sendmsg", decltype(sendmsg)>(),
    point_row<"dlopen", decltype(dlopen)>(),
    point_row<"dlclose", decltype(dlclose)>(),
    point_row<"backtrace", decltype(backtrace)>(),
    error_row<"pthread_mutex_lock", decltype(pthread_mutex_lock), kLockFaults, EINVAL>(),
};

void redirect(Imports& imports, const Row& row) {
  if (void* const real = imports.function(row.name); real != nullptr) {
    row.set_real(real);
    imports.redirect(row.name, row.replacement);
  }
}

}  // namespace

Faults::Faults(const FaultPlan& plan) {
  g_state.plan = plan;
  g_state.timer_thread = kesa_get_timer_root()->threadId;
  g_state.calls = 0;
  g_state.fault = {};
  g_state.has_fault = false;
  g_state.inheritable = 0;
  for (auto& block : g_state.blocks) {
    block.store(nullptr, std::memory_order_relaxed);
  }
  // A cancellation may also happen inside the libraries that the library calls.
  const bool is_everywhere = plan.kinds == kCancellations && plan.object == Object::library;
  for (const Object object : {plan.object, Object::log, Object::kernel_side}) {
    if (object == plan.object || is_everywhere) {
      imports_.push_back(std::make_unique<Imports>(object));
      for (const Row& row : kRows) {
        redirect(*imports_.back(), row);
      }
    }
  }
  if (is_everywhere) {
    redirect(*imports_.front(), kLogRow);
  }
  g_state.base = imports_.front()->base();
  g_state.failing.store(true, std::memory_order_release);
}

Faults::~Faults() { stop(); }

void Faults::stop() { g_state.failing.store(false, std::memory_order_release); }

uint32_t Faults::calls() const { return g_state.calls.load(); }

Fault Faults::fault() const { return g_state.has_fault.load(std::memory_order_acquire) ? g_state.fault : Fault{}; }

uint32_t Faults::inheritable() const { return g_state.inheritable.load(); }

int Faults::blocks() const {
  return static_cast<int>(std::count_if(std::begin(g_state.blocks), std::end(g_state.blocks),
                                        [](const auto& block) { return block.load() != nullptr; }));
}

std::ostream& operator<<(std::ostream& out, const Fault& fault) {
  if (!fault.happened) {
    return out << "no fault";
  }
  return out << "failing call " << fault.number << ", " << fault.function << " called at 0x" << std::hex
             << fault.caller << std::dec;
}

}  // namespace tirn::test
