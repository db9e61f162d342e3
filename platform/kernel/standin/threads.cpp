// The commands for threads and their CPUs, with what user space knows of them. Signal handlers call them too, so
// nothing here locks or allocates, and streams and the C library's scan functions are not used.
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>

#include "commands.h"

namespace zut {
namespace {

// Reads a small file into a text. If the file is empty or cannot be read, the text is empty and the result is false.
template <size_t kSize>
bool read_text(const char* path, char (&text)[kSize]) {
  const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
  const ssize_t length = descriptor >= 0 ? read(descriptor, text, kSize - 1) : -1;
  if (descriptor >= 0) {
    close(descriptor);
  }
  text[std::max<ssize_t>(length, 0)] = '\0';
  return length > 0;
}

// Does the same with a file of one thread of this process.
template <size_t kSize>
bool read_task_file(const char* thread, const char* file, char (&text)[kSize]) {
  char path[64];
  snprintf(path, sizeof(path), "/proc/self/task/%.20s/%s", thread, file);
  return read_text(path, text);
}

// Returns the number at the start of the text, or `none` if the text does not start with a digit.
uint32_t number_at(const char* text, uint32_t none) {
  std::from_chars(text, text + strlen(text), none);
  return none;
}

struct Status {
  char name[64];
  char state[32];
};

// Copies what follows the label, up to the end of its text line. The field is empty if there is no such label.
template <size_t kSize>
void copy_field(const char* text, const char* label, char (&field)[kSize]) {
  const char* start = strstr(text, label);
  start = start != nullptr ? start + strlen(label) : "";
  const size_t length = std::min(strcspn(start, "\n"), kSize - 1);
  memcpy(field, start, length);
  field[length] = '\0';
}

bool read_status(uint32_t thread, Status* status) {
  char number[16];
  char text[1024];
  snprintf(number, sizeof(number), "%u", thread);
  if (!read_task_file(number, "status", text)) {
    return false;
  }
  copy_field(text, "Name:\t", status->name);
  copy_field(text, "\nState:\t", status->state);
  return true;
}

// Returns whether the thread ran on this CPU last. The CPU is the 39th field of the file. Fields are counted from the
// end of the second one, the name in parentheses, because the name may contain any character.
bool ran_on(const char* thread, uint32_t cpu) {
  constexpr int kFieldsBehindName = 37;
  char line[1024];
  if (!read_task_file(thread, "stat", line)) {
    return false;
  }
  const char* field = strrchr(line, ')');
  for (int i = 0; i < kFieldsBehindName && field != nullptr; ++i) {
    field = strchr(field + 1, ' ');
  }
  return field != nullptr && number_at(field + 1, kMostCpus) == cpu;
}

// A directory entry as getdents64 stores it.
struct Entry {
  uint64_t inode;
  int64_t offset;
  uint16_t size;
  uint8_t type;
  char name[];
};

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
      count += entry->name[0] != '.' && ran_on(entry->name, cpu);
      at += entry->size;
    }
  }
  close(tasks);
  return count;
}

}  // namespace

// Takes the last number of a list such as "0-3,8-11". sysconf is not used, because it may allocate. If the list
// cannot be read, all kMostCpus may be named.
uint32_t cpu_count() {
  char list[1024];
  if (!read_text("/sys/devices/system/cpu/present", list)) {
    return kMostCpus;
  }
  const char* last = list;
  for (const char* at = list; *at != '\0'; ++at) {
    last = *at == '-' || *at == ',' ? at + 1 : last;
  }
  return std::min(number_at(last, kMostCpus - 1), kMostCpus - 1) + 1;
}

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

// Does not disturb the thread: the kernel reports the call in which it sleeps, its stack pointer and program counter.
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
