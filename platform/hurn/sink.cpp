// Writes log lines to the sink (standard error, a file with rotation, the system log) and changes the sink.
#include "sink.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "line.h"

namespace tirn::logging {
namespace {

enum class Kind { kStderr, kFile, kSyslog };

constexpr uint64_t kDefaultLimit = 16u << 20;
constexpr unsigned kDefaultKeep = 4;
constexpr unsigned kMostKept = 999;
constexpr size_t kLongestPath = PATH_MAX - sizeof ".999";

// What a sink description says.
struct Plan {
  Kind kind = Kind::kStderr;
  char path[PATH_MAX];
  uint64_t limit = kDefaultLimit;
  unsigned keep = kDefaultKeep;
};

// Names are never freed, because a writer may be using one at any time. Equal names are stored once.
struct Name {
  Name* next;
  char text[];
};

constinit std::atomic<Kind> g_kind{Kind::kStderr};
constinit std::atomic<const char*> g_program{nullptr};

// The descriptor of the log file. Its number never changes, since dup3 gives the same number to the next file: a
// writer that has read the number cannot write to an unrelated file.
constinit std::atomic<int> g_file{-1};
constinit std::atomic<uint64_t> g_size{0};
constinit std::atomic<uint64_t> g_limit{kDefaultLimit};

// The process whose thread is changing or rotating the sink, or 0. A forked child does not wait for a thread of its
// parent: it takes over the ownership of another process.
constinit std::atomic<pid_t> g_owner{0};

// The variables below are used by the owner only. The path is one of the names, so a child that is forked during a
// change has either the former path or the next one, each of them complete.
constinit Name* g_names = nullptr;
constinit unsigned g_keep = kDefaultKeep;
constinit const char* g_path = "";
char g_older_path[PATH_MAX];
char g_newer_path[PATH_MAX];

bool try_own() {
  const pid_t self = getpid();
  pid_t present = g_owner.load(std::memory_order_relaxed);
  return present != self && g_owner.compare_exchange_strong(present, self, std::memory_order_acquire);
}

class Ownership {
 public:
  Ownership() = default;
  // Release: publishes the owner's variables. Pairs with the exchange in try_own.
  ~Ownership() { g_owner.store(0, std::memory_order_release); }
  Ownership(const Ownership&) = delete;
  Ownership& operator=(const Ownership&) = delete;
};

// Clears the owner in forked children. Process ids are reused, so a child may have the id of an ancestor whose thread
// owned the sink.
void follow_forks() {
  static constinit pthread_once_t followed = PTHREAD_ONCE_INIT;
  pthread_once(&followed,
               [] { pthread_atfork(nullptr, nullptr, [] { g_owner.store(0, std::memory_order_relaxed); }); });
}

// Waits by sleeping: a thread of real-time priority that only yields would keep an owner of lower priority off the
// processor.
void wait_to_own() {
  follow_forks();
  const timespec pause{0, 1'000'000};
  while (!try_own()) {
    nanosleep(&pause, nullptr);
  }
}

// Returns the number of bytes written. A failure after the first write loses the rest.
size_t write_all(int descriptor, const char* bytes, size_t length) {
  size_t done = 0;
  while (done < length) {
    const ssize_t count = write(descriptor, bytes + done, length - done);
    if (count > 0) {
      done += static_cast<size_t>(count);
    } else if (count == 0 || errno != EINTR) {
      break;
    }
  }
  return done;
}

int open_log(const char* name) { return open(name, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0640); }

void remember_size(int descriptor) {
  struct stat state {};
  g_size.store(fstat(descriptor, &state) == 0 ? static_cast<uint64_t>(state.st_size) : 0, std::memory_order_relaxed);
}

// Opens the file that has the name `g_path` now, under the number of the present descriptor.
void reopen() {
  const int fresh = open_log(g_path);
  if (fresh < 0) {
    return;
  }
  dup3(fresh, g_file.load(std::memory_order_relaxed), O_CLOEXEC);
  remember_size(fresh);
  close(fresh);
}

bool put_number(char (&result)[PATH_MAX], unsigned number) {
  const int length = number ? snprintf(result, sizeof result, "%s.%u", g_path, number)
                            : snprintf(result, sizeof result, "%s", g_path);
  return length < PATH_MAX;
}

// Renames each file to the next number, the oldest first. The numbers end at the first free one, or at the last one
// that is kept, whose file is replaced. Stops and returns false if a file cannot be renamed, because the next one
// would replace it.
bool shift_files() {
  unsigned number = 1;
  while (number < g_keep && put_number(g_older_path, number) && access(g_older_path, F_OK) == 0) {
    number++;
  }
  for (; number > 0; number--) {
    if (!put_number(g_older_path, number) || !put_number(g_newer_path, number - 1) ||
        rename(g_newer_path, g_older_path) != 0) {
      return false;
    }
  }
  return true;
}

// Keeps other processes that share the file from renaming it meanwhile. The lock belongs to an open file description
// of its own: parent and child would both get a lock on one that they share since a fork.
class FileLock {
 public:
  explicit FileLock(const char* name) : descriptor_(open(name, O_WRONLY | O_CLOEXEC | O_NOCTTY)) {}
  ~FileLock() {
    if (descriptor_ < 0) {
      return;
    }
    flock(descriptor_, LOCK_UN);
    close(descriptor_);
  }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  int descriptor() const { return descriptor_; }
  // Returns false if another process holds the lock. A file that cannot be locked does not stop the caller.
  bool try_lock() const { return flock(descriptor_, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK; }

 private:
  const int descriptor_;
};

// Returns whether the descriptor's file still has the name `g_path`.
bool is_named(int descriptor) {
  struct stat named {
  }, opened{};
  return stat(g_path, &named) == 0 && fstat(descriptor, &opened) == 0 && named.st_ino == opened.st_ino &&
         named.st_dev == opened.st_dev;
}

// Runs in the thread or signal handler whose log line exceeded the limit, in one at a time. A thread that writes
// meanwhile writes to the old file, even after that has its new name.
void rotate() {
  if (!try_own()) {
    return;
  }
  const Ownership ownership;
  if (g_kind.load(std::memory_order_relaxed) != Kind::kFile ||
      g_size.load(std::memory_order_relaxed) <= g_limit.load(std::memory_order_relaxed)) {
    return;
  }
  const FileLock lock(g_path);
  if (!lock.try_lock()) {
    return;
  }
  // If the rotation fails, the next attempt comes after as many bytes again.
  g_size.store(0, std::memory_order_relaxed);
  // Another process may have renamed the file already, before the lock or long ago.
  const bool renamed = !is_named(lock.descriptor()) || !is_named(g_file.load(std::memory_order_relaxed));
  if (renamed || shift_files()) {
    reopen();
  }
}

bool write_to_file(const char* bytes, size_t length) {
  const size_t written = write_all(g_file.load(std::memory_order_relaxed), bytes, length);
  if (g_size.fetch_add(written, std::memory_order_relaxed) + written > g_limit.load(std::memory_order_relaxed)) {
    rotate();
  }
  return written != 0;
}

// Sends one datagram, without the line feed, through a socket of its own: syslog() would take a lock and allocate.
bool write_to_syslog(const Line& line, unsigned priority) {
  const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (descriptor < 0) {
    return false;
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, "/dev/log", sizeof "/dev/log");
  char head[128];
  const int length = snprintf(head, sizeof head, "<%u>%.64s[%d]: ", LOG_USER | priority, program_name(), getpid());
  iovec parts[] = {{head, static_cast<size_t>(length)},
                   {const_cast<char*>(line.bytes) + line.body, line.end - 1 - line.body}};
  msghdr message{};
  message.msg_name = &address;
  message.msg_namelen = sizeof address;
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  const bool sent = sendmsg(descriptor, &message, MSG_NOSIGNAL) >= 0;
  close(descriptor);
  return sent;
}

// Removes the part up to the next colon from `rest` and returns it.
std::string_view next_field(std::string_view& rest) {
  const size_t colon = rest.find(':');
  const std::string_view field = rest.substr(0, colon);
  rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
  return field;
}

template <typename Number>
bool read_number(std::string_view digits, Number most, Number& value) {
  const char* end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, value);
  return error == std::errc() && stop == end && value >= 1 && value <= most;
}

// Makes relative names absolute, so that a later change of the working directory does not move the log.
bool fix_path(std::string_view name, char (&result)[PATH_MAX]) {
  result[0] = '\0';
  if (name.empty() || (name[0] != '/' && (getcwd(result, sizeof result) == nullptr))) {
    return false;
  }
  const size_t length = strlen(result);
  if (length + 1 + name.size() > kLongestPath) {
    return false;
  }
  snprintf(result + length, sizeof result - length, "%s%.*s", length ? "/" : "", static_cast<int>(name.size()),
           name.data());
  return true;
}

bool parse(const char* description, Plan& plan) {
  const std::string_view whole = description != nullptr ? description : "stderr";
  if (whole == "stderr") {
    return true;
  }
  if (whole == "syslog") {
    plan.kind = Kind::kSyslog;
    return true;
  }
  std::string_view rest = whole;
  if (next_field(rest) != "file" || !fix_path(next_field(rest), plan.path)) {
    return false;
  }
  plan.kind = Kind::kFile;
  const char* end = whole.data() + whole.size();
  if (end[-1] == ':') {
    return false;
  }
  if (!rest.empty() && !read_number(next_field(rest), uint64_t{INT64_MAX}, plan.limit)) {
    return false;
  }
  return rest.empty() || read_number(rest, kMostKept, plan.keep);
}

const char* intern(const char* text) {
  for (Name* name = g_names; name != nullptr; name = name->next) {
    if (!strcmp(name->text, text)) {
      return name->text;
    }
  }
  const size_t length = strlen(text) + 1;
  auto* name = static_cast<Name*>(malloc(sizeof(Name) + length));
  if (name == nullptr) {
    return nullptr;
  }
  memcpy(name->text, text, length);
  name->next = g_names;
  g_names = name;
  return name->text;
}

bool use_file(const Plan& plan) {
  const char* kept = intern(plan.path);
  const int fresh = kept != nullptr ? open_log(kept) : -1;
  if (fresh < 0) {
    return false;
  }
  int known = g_file.load(std::memory_order_relaxed);
  if (known < 0) {
    known = fcntl(fresh, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  } else if (dup3(fresh, known, O_CLOEXEC) < 0) {
    known = -1;
  }
  close(fresh);
  if (known < 0) {
    return false;
  }
  g_path = kept;
  g_keep = plan.keep;
  g_limit.store(plan.limit, std::memory_order_relaxed);
  remember_size(known);
  g_file.store(known, std::memory_order_relaxed);
  return true;
}

// Closes the file, and makes its descriptor another one of standard error: a writer that has already chosen the file
// writes there.
void leave_file() {
  const int known = g_file.load(std::memory_order_relaxed);
  if (known >= 0) {
    dup3(STDERR_FILENO, known, O_CLOEXEC);
  }
}

void use(Kind next) {
  // Release: publishes the descriptor before the kind that uses it. Pairs with the load in write_line.
  g_kind.store(next, std::memory_order_release);
  if (next != Kind::kFile) {
    leave_file();
  }
}

}  // namespace

const char* program_name() {
  const char* name = g_program.load(std::memory_order_acquire);
  return name != nullptr ? name : program_invocation_short_name;
}

void write_line(const Line& line, unsigned priority) {
  const Kind now = g_kind.load(std::memory_order_acquire);
  if (now == Kind::kFile && write_to_file(line.bytes, line.end)) {
    return;
  }
  if (now == Kind::kSyslog && write_to_syslog(line, priority)) {
    return;
  }
  write_all(STDERR_FILENO, line.bytes, line.end);
}

bool open_sink(const char* name, const char* description) {
  Plan plan;
  if (!parse(description, plan)) {
    return false;
  }
  wait_to_own();
  const Ownership ownership;
  const char* kept = name != nullptr ? intern(name) : nullptr;
  if ((name != nullptr && kept == nullptr) || (plan.kind == Kind::kFile && !use_file(plan))) {
    return false;
  }
  // Release: publishes the bytes of the name. Pairs with the load in program_name.
  g_program.store(kept, std::memory_order_release);
  use(plan.kind);
  return true;
}

void reset_sink() {
  wait_to_own();
  const Ownership ownership;
  g_program.store(nullptr, std::memory_order_relaxed);
  use(Kind::kStderr);
}

}  // namespace tirn::logging
