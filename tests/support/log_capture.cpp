#include "log_capture.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>

namespace tirn::test {
namespace {

constexpr size_t kLines = 32768;
constexpr size_t kBytes = 8 * 1024 * 1024;

struct Slot {
  std::atomic<bool> ready;
  pid_t process;
  hurn_line line;  // `file` points to a constant, the other texts lie in the pool
};

struct Store {
  std::atomic<size_t> lines;
  std::atomic<size_t> bytes;
  Slot slots[kLines];
  char pool[kBytes];  // zeroed, so each text is terminated
};

Store& store() {
  static void* const memory = mmap(nullptr, sizeof(Store), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return *static_cast<Store*>(memory);
}

// Runs wherever a log line is written, also in signal handlers, so it takes no lock and allocates nothing.
void keep_line(const hurn_line* line) {
  const char* const function = line->function != nullptr ? line->function : "";
  const size_t name_size = std::strlen(function) + 1;
  const size_t number = store().lines.fetch_add(1, std::memory_order_relaxed);
  const size_t at = store().bytes.fetch_add(name_size + line->length + 1, std::memory_order_relaxed);
  if (number >= kLines || at + name_size + line->length >= kBytes) {
    return;  // operator<< reports that log lines were lost
  }
  Slot& slot = store().slots[number];
  slot.process = getpid();
  slot.line = *line;
  slot.line.function = static_cast<const char*>(std::memcpy(store().pool + at, function, name_size));
  slot.line.text = static_cast<const char*>(std::memcpy(store().pool + at + name_size, line->text, line->length));
  slot.ready.store(true, std::memory_order_release);  // pairs with the acquire load in lines()
}

}  // namespace

bool matches(std::string_view text, std::string_view pattern) {
  const size_t star = pattern.find('*');
  if (star == std::string_view::npos) {
    return text == pattern;
  }
  bool is_match = false;
  for (size_t at = star; text.starts_with(pattern.substr(0, star)) && at <= text.size() && !is_match; ++at) {
    is_match = matches(text.substr(at), pattern.substr(star + 1));
  }
  return is_match;
}

LogCapture::LogCapture(uint32_t level) : former_level_(static_cast<uint32_t>(hurn_loglevel_get(TIRN_MODULE_ID))) {
  clear();  // also maps the store, which a signal handler must not do
  hurn_loglevel_set(TIRN_MODULE_ID, level);
  const hurn_content_record record{HURN_CALLBACK_ONLY, keep_line};
  hurn_register_content_callback(&record);
}

LogCapture::~LogCapture() {
  const hurn_content_record none{};
  hurn_register_content_callback(&none);
  hurn_loglevel_set(TIRN_MODULE_ID, former_level_);
}

void LogCapture::clear() { first_ = store().lines.load(std::memory_order_relaxed); }

std::vector<LogLine> LogCapture::lines() const {
  const size_t end = std::min(store().lines.load(std::memory_order_relaxed), kLines);
  std::vector<LogLine> lines;
  for (size_t i = first_; i < end; ++i) {
    const Slot& slot = store().slots[i];
    if (slot.ready.load(std::memory_order_acquire)) {  // otherwise its writer is not done yet, or died
      const hurn_line& line = slot.line;
      lines.push_back({line.module, line.level, slot.process, line.line, line.file != nullptr ? line.file : "",
                       line.function, line.text});
    }
  }
  return lines;
}

std::vector<std::string> LogCapture::texts() const {
  std::vector<std::string> texts;
  for (const LogLine& line : lines()) {
    texts.push_back(line.text);
  }
  return texts;
}

template <typename Condition>
size_t LogCapture::count_if(Condition condition) const {
  const auto all = lines();
  return static_cast<size_t>(std::count_if(all.begin(), all.end(), condition));
}

size_t LogCapture::count(std::string_view text) const {
  return count_if([&](const LogLine& line) { return matches(line.text, text); });
}

size_t LogCapture::count(uint32_t level, std::string_view text) const {
  return count_if([&](const LogLine& line) { return line.level == level && matches(line.text, text); });
}

bool LogCapture::has(uint32_t level, std::string_view function, std::string_view text) const {
  return count_if([&](const LogLine& line) {
           return line.level == level && line.function == function && matches(line.text, text);
         }) != 0;
}

std::ostream& operator<<(std::ostream& out, const LogCapture& capture) {
  out << "log:\n";
  for (const LogLine& line : capture.lines()) {
    out << "  [" << line.process << "] module " << line.module << " level " << line.level << ' ' << line.file << ':'
        << line.line << ' ' << line.function << ": \"" << line.text << "\"\n";
  }
  return out << (store().lines >= kLines || store().bytes >= kBytes ? "  and lines that found no room\n" : "");
}

}  // namespace tirn::test
