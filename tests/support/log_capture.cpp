#include "log_capture.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "wait_until.h"

namespace tirn::test {
namespace {

constexpr size_t kLines = 32768;
constexpr size_t kBytes = 8 * 1024 * 1024;

// A line's names and text stand one behind the other in the pool, each with its terminator.
struct Slot {
  std::atomic<bool> ready;
  pid_t process;
  uint32_t module, level, line;
  size_t at;
};

struct Store {
  std::atomic<size_t> lines;
  std::atomic<size_t> bytes;
  std::atomic<size_t> lost;
  Slot slots[kLines];
  char pool[kBytes];
};

constinit std::atomic<Store*> g_store{nullptr};

Store* map_store() {
  void* const memory = mmap(nullptr, sizeof(Store), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    std::abort();
  }
  return static_cast<Store*>(memory);  // zero bytes are its first state
}

// Runs wherever a line is written, in signal handlers too: takes no lock and allocates nothing.
void keep_line(const hurn_line* line) {
  Store& store = *g_store.load(std::memory_order_acquire);
  const char* const names[] = {line->file != nullptr ? line->file : "",
                               line->function != nullptr ? line->function : ""};
  const size_t sizes[] = {std::strlen(names[0]) + 1, std::strlen(names[1]) + 1};
  const size_t wanted = sizes[0] + sizes[1] + line->length + 1;
  const size_t at = store.bytes.fetch_add(wanted, std::memory_order_relaxed);
  if (at + wanted > kBytes) {
    store.lost.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  const size_t number = store.lines.fetch_add(1, std::memory_order_relaxed);
  if (number >= kLines) {
    store.lost.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  char* const text = store.pool + at;
  std::memcpy(text, names[0], sizes[0]);
  std::memcpy(text + sizes[0], names[1], sizes[1]);
  std::memcpy(text + sizes[0] + sizes[1], line->text, line->length);  // the pool is zeros: it is terminated
  Slot& slot = store.slots[number];
  slot.process = getpid();
  slot.module = line->module;
  slot.level = line->level;
  slot.line = line->line;
  slot.at = at;
  slot.ready.store(true, std::memory_order_release);  // with lines()
}

}  // namespace

bool matches(std::string_view text, std::string_view pattern) {
  size_t at = 0;
  for (bool is_first = true;; is_first = false) {
    const size_t star = pattern.find('*');
    const std::string_view piece = pattern.substr(0, star);
    if (star == std::string_view::npos) {
      return is_first ? text == piece : text.size() - at >= piece.size() && text.ends_with(piece);
    }
    const size_t found = is_first ? (text.starts_with(piece) ? 0 : std::string_view::npos) : text.find(piece, at);
    if (found == std::string_view::npos) {
      return false;
    }
    at = found + piece.size();
    pattern.remove_prefix(star + 1);
  }
}

LogCapture::LogCapture(uint32_t level) : former_level_(static_cast<uint32_t>(hurn_loglevel_get(TIRN_MODULE_ID))) {
  if (g_store.load(std::memory_order_relaxed) == nullptr) {
    g_store.store(map_store(), std::memory_order_release);
  }
  clear();
  hurn_loglevel_set(TIRN_MODULE_ID, level);
  const hurn_content_record record{HURN_CALLBACK_ONLY, keep_line};
  hurn_register_content_callback(&record);
}

LogCapture::~LogCapture() {
  const hurn_content_record none{};
  hurn_register_content_callback(&none);
  hurn_loglevel_set(TIRN_MODULE_ID, former_level_);
}

void LogCapture::clear() {
  first_ = std::min(g_store.load(std::memory_order_relaxed)->lines.load(std::memory_order_relaxed), kLines);
}

std::vector<LogLine> LogCapture::lines() const {
  const Store& store = *g_store.load(std::memory_order_relaxed);
  const size_t end = std::min(store.lines.load(std::memory_order_relaxed), kLines);
  std::vector<LogLine> lines;
  for (size_t i = first_; i < end; ++i) {
    const Slot& slot = store.slots[i];
    if (!slot.ready.load(std::memory_order_acquire)) {
      continue;  // its writer is at it, or died there
    }
    LogLine line{slot.module, slot.level, slot.process, slot.line, {}, {}, {}};
    line.file = store.pool + slot.at;
    line.function = store.pool + slot.at + line.file.size() + 1;
    line.text = store.pool + slot.at + line.file.size() + line.function.size() + 2;
    lines.push_back(std::move(line));
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

size_t LogCapture::count(std::string_view text) const {
  const auto all = lines();
  return static_cast<size_t>(
      std::count_if(all.begin(), all.end(), [&](const LogLine& line) { return matches(line.text, text); }));
}

size_t LogCapture::count(uint32_t level, std::string_view text) const {
  const auto all = lines();
  return static_cast<size_t>(std::count_if(
      all.begin(), all.end(), [&](const LogLine& line) { return line.level == level && matches(line.text, text); }));
}

bool LogCapture::has(uint32_t level, std::string_view function, std::string_view text) const {
  const auto all = lines();
  return std::any_of(all.begin(), all.end(), [&](const LogLine& line) {
    return line.level == level && line.function == function && matches(line.text, text);
  });
}

bool LogCapture::wait_for(std::string_view text, std::chrono::milliseconds limit) const {
  return wait_until([&] { return count(text) != 0; }, limit);
}

std::ostream& operator<<(std::ostream& out, const LogCapture& capture) {
  out << "log:\n";
  for (const LogLine& line : capture.lines()) {
    out << "  [" << line.process << "] module " << line.module << " level " << line.level << ' ' << line.file << ':'
        << line.line << ' ' << line.function << ": \"" << line.text << "\"\n";
  }
  if (const size_t lost = g_store.load(std::memory_order_relaxed)->lost.load(std::memory_order_relaxed); lost != 0) {
    out << "  and " << lost << " lines that found no room\n";
  }
  return out;
}

}  // namespace tirn::test
