// The eleven operations of the log library.
#include "hurn.h"

#include <errno.h>
#include <pthread.h>

#include <atomic>
#include <cstdarg>

#include "limit.h"
#include "line.h"
#include "sink.h"

namespace tirn::logging {
namespace {

constexpr uint32_t kNone = UINT32_MAX;

struct Level {
  std::atomic<uint8_t> most{HURN_INFO};
};
constinit Level levels[HURN_MODULE_COUNT];

// The address of the registered callback, with the flag in the top bit, which no address of a program uses. It is one
// word, because a signal handler may register or read a callback at any time.
constexpr uintptr_t kOnlyBit = uintptr_t{1} << 63;
constinit std::atomic<uintptr_t> content_callback{0};

// Set while a callback runs. The log lines that a callback writes go to the sink alone; otherwise it would be called
// for them without end. The initial-exec model keeps the first access, maybe in a signal handler, from allocating.
constinit thread_local bool in_callback __attribute__((tls_model("initial-exec"))) = false;

// Guards each operation that opens or writes: it keeps errno, and holds cancellation off because a cancelled thread
// would leave the sink owned.
class Operation {
 public:
  Operation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelled_); }
  ~Operation() {
    pthread_setcancelstate(cancelled_, nullptr);
    errno = value_;
  }
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;
  void put_errno_back() const { errno = value_; }

 private:
  const int value_ = errno;
  int cancelled_ = PTHREAD_CANCEL_ENABLE;
};

// Passes the log line to the callback, if there is one. Returns whether the callback alone gets it.
bool show_content(const Source& source, const Line& line) {
  const uintptr_t word = content_callback.load(std::memory_order_acquire);
  if (!word || in_callback) {
    return false;
  }
  const hurn_line content{source.module,   source.level,           source.file,         source.line,
                          source.function, line.bytes + line.text, line.end - line.text};
  in_callback = true;
  reinterpret_cast<void (*)(const hurn_line*)>(word & ~kOnlyBit)(&content);
  in_callback = false;
  return (word & kOnlyBit) != 0u;
}

void put_out(const Source& source, Line& line, unsigned priority) {
  if (show_content(source, line)) {
    return;
  }
  line.close();
  write_line(line, priority);
}

__attribute__((format(printf, 2, 3))) void report(const Source& source, const char* format, ...) {
  Line line;
  line.put_prefix(program_name(), source);
  va_list arguments;
  va_start(arguments, format);
  line.put_text(format, arguments);
  va_end(arguments);
  put_out(source, line, source.level);
}

void report_suppressed(uint32_t module, uint32_t level) {
  for (int which = 0; which < 2; which++) {
    const Suppressed held = take_suppressed(which, module, level);
    if (held.count) {
      report({module, level, "hurn", __LINE__, "hurn"}, "%u lines of group %s suppressed.", held.count, held.group);
    }
  }
}

}  // namespace
}  // namespace tirn::logging

using namespace tirn::logging;

int hurn_init(const char* program, const char* sink) {
  const Operation operation;
  return open_sink(program, sink) ? 0 : -1;
}

void hurn_destroy(void) {
  const Operation operation;
  reset_sink();
}

int hurn_loglevel_set(uint32_t module, uint32_t level) {
  if (!is_level(level) || (module >= HURN_MODULE_COUNT && module != HURN_ALL_MODULES)) {
    return -1;
  }
  const bool all = module == HURN_ALL_MODULES;
  const uint32_t last = all ? HURN_MODULE_COUNT - 1 : module;
  for (uint32_t i = all ? 0 : module; i <= last; i++) {
    levels[i].most.store(static_cast<uint8_t>(level), std::memory_order_relaxed);
  }
  return 0;
}

int hurn_loglevel_get(uint32_t module) {
  return module < HURN_MODULE_COUNT ? levels[module].most.load(std::memory_order_relaxed) : -1;
}

// Runs before every message of the node, and most messages are off: so it has one load and no branch on the level.
// The shift wraps for a level of 32 or more; the comparison rejects those, as no module's level is above 7.
int hurn_level_check(uint32_t module, uint32_t level) {
  const uint32_t most = levels[module_index(module)].most.load(std::memory_order_relaxed);
  const uint32_t wanted = (kLevelBits >> (level & 31)) & static_cast<uint32_t>(level <= most);
  return static_cast<int>(wanted) - 1;
}

void hurn(uint32_t module, uint32_t level, const char* file, uint32_t line, const char* function, uint32_t,
          const char* format, ...) {
  if (!is_level(level) || format == nullptr) {
    return;
  }
  const Operation operation;
  if (!admit(module, level)) {
    return;
  }
  report_suppressed(module, level);
  const Source source{module, level, file, line, function};
  Line whole;
  whole.put_prefix(program_name(), source);
  operation.put_errno_back();
  va_list arguments;
  va_start(arguments, format);
  const bool formatted = whole.put_text(format, arguments);
  va_end(arguments);
  if (formatted) {
    put_out(source, whole, level);
  }
}

int hurn_vraw(const char* format, va_list arguments) {
  if (format == nullptr) {
    return -1;
  }
  const Operation operation;
  Line line;
  if (!line.put_text(format, arguments)) {
    return -1;
  }
  const auto length = static_cast<int>(line.end);
  put_out({kNone, kNone, nullptr, kNone, nullptr}, line, HURN_ERROR);
  return length;
}

int hurn_original(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = hurn_vraw(format, arguments);
  va_end(arguments);
  return length;
}

uint32_t hurn_get_group_id(const char* group) { return group_named(group); }

int hurn_ratelimit_set(uint32_t group, uint32_t lines, uint32_t milliseconds) {
  return set_limit(group, lines, milliseconds) ? 0 : -1;
}

int hurn_register_content_callback(const struct hurn_content_record* record) {
  if (record == nullptr) {
    return -1;
  }
  const auto address = reinterpret_cast<uintptr_t>(record->callback);
  const bool only = address != 0u && ((record->flags & HURN_CALLBACK_ONLY) != 0u);
  // Release: publishes what the callback uses. Pairs with the load in show_content.
  content_callback.store(address | (only ? kOnlyBit : 0), std::memory_order_release);
  return 0;
}
