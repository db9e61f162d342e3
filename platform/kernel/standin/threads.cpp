// What user space can tell of threads and of the CPUs that they run on.
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "commands.h"

namespace zut {
namespace {

// Reads a file of one thread of this process into a text. False where there is no such thread.
template <size_t kSize>
bool read_task_file(const char* thread, const char* file, char (&text)[kSize]) {
  char path[64];
  snprintf(path, sizeof(path), "/proc/self/task/%.20s/%s", thread, file);
  const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    return false;
  }
  const ssize_t length = read(descriptor, text, kSize - 1);
  close(descriptor);
  text[length > 0 ? length : 0] = '\0';
  return length > 0;
}

struct Status {
  char name[64] = "";
  char state[32] = "";
};

bool read_status(uint32_t thread, Status* status) {
  char number[16];
  char text[1024];
  snprintf(number, sizeof(number), "%u", thread);
  if (!read_task_file(number, "status", text)) {
    return false;
  }
  sscanf(text, "Name:\t%63[^\n]", status->name);
  if (const char* state = strstr(text, "\nState:\t")) {
    sscanf(state, "\nState:\t%31[^\n]", status->state);
  }
  return true;
}

// The CPU that a thread ran on last: the 39th field of its line, of which the second, the name, may hold anything.
long cpu_of(const char* thread) {
  constexpr int kFieldsBehindName = 37;
  char line[1024];
  if (!read_task_file(thread, "stat", line)) {
    return -1;
  }
  const char* field = strrchr(line, ')');
  for (int i = 0; i < kFieldsBehindName && field != nullptr; ++i) {
    field = strchr(field + 1, ' ');
  }
  return field != nullptr ? strtol(field, nullptr, 10) : -1;
}

// As the kernel stores them.
struct Entry {
  uint64_t inode;
  int64_t offset;
  uint16_t size;
  uint8_t type;
  char name[];
};

// Called in signal handlers too: the folder is read without the C library's stream, which allocates.
uint32_t threads_of_cpu(uint32_t cpu) {
  uint32_t count = 0;
  const int tasks = open("/proc/self/task", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (tasks < 0) {
    return count;
  }
  alignas(Entry) char bytes[2048];
  for (long length; (length = syscall(SYS_getdents64, tasks, bytes, sizeof(bytes))) > 0;) {
    for (long at = 0; at < length;) {
      const auto* entry = reinterpret_cast<const Entry*>(bytes + at);
      count += entry->name[0] != '.' && cpu_of(entry->name) == static_cast<long>(cpu);
      at += entry->size;
    }
  }
  close(tasks);
  return count;
}

}  // namespace

long count_cpu_threads(const Call& call) {
  if (call.a >= cpu_count()) {
    return fail(EINVAL);
  }
  return store(call.b, threads_of_cpu(static_cast<uint32_t>(call.a)));
}

long print_thread(const Call& call) {
  if (!given(call.a)) {
    return fail(EFAULT);
  }
  const uint32_t thread = load<uint32_t>(call.a);
  Status status;
  if (!read_status(thread, &status)) {
    return fail(ESRCH);
  }
  ZUT_PRINT("thread %u (%s): %s", thread, status.name, status.state);
  return 0;
}

long print_cpu(const Call& call) {
  if (!given(call.a)) {
    return fail(EFAULT);
  }
  const uint32_t cpu = load<uint32_t>(call.a);
  if (cpu >= cpu_count()) {
    return fail(EINVAL);
  }
  ZUT_PRINT("cpu %u: %u threads of this process ran here last; its stack cannot be read from user space", cpu,
            threads_of_cpu(cpu));
  return 0;
}

// The thread is not disturbed: the kernel tells in which call it sleeps, with its stack pointer and program counter.
long print_sleeping_thread(const Call& call) {
  Status status;
  if (call.a > UINT32_MAX || !read_status(static_cast<uint32_t>(call.a), &status)) {
    return fail(ESRCH);
  }
  const uint32_t thread = static_cast<uint32_t>(call.a);
  if (status.state[0] == 'R') {
    ZUT_PRINT("thread %u (%s) is running: not dumped", thread, status.name);
    return 0;
  }
  char number[16];
  char where[256] = "unknown";
  snprintf(number, sizeof(number), "%u", thread);
  if (read_task_file(number, "syscall", where)) {
    where[strcspn(where, "\n")] = '\0';
  }
  ZUT_PRINT("thread %u (%s): %s, call, arguments, sp and pc: %s", thread, status.name, status.state, where);
  return 0;
}

}  // namespace zut
