// Implements the reader of text lines for a parse.
#include "libtirn/cfg/line_reader.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "libtirn/base/stored_file.h"
#include "tirn/cfg.h"

namespace tirn::cfg {
namespace {

constexpr size_t kLongest = KESA_CFG_LINE_SIZE - 1;  // with the line feed
constexpr size_t kBlock = 16384;
constexpr uint32_t kFirst = 2 * kBlock;

}  // namespace

LineReader::LineReader(int fd)
    : fd_(fd),
      is_stored_(is_stored_file(fd)),
      buffer_(tagged_block<char>(kFirst)),
      size_(kFirst),
      text_(buffer_.get()) {}

LineReader::~LineReader() {
  if (is_stored_ && raw_ != filled_) {
    lseek(fd_, static_cast<off_t>(raw_) - static_cast<off_t>(filled_), SEEK_CUR);
  }
}

// Reads more after the text line so far. All bytes read before must have been examined. Returns whether any came.
bool LineReader::fill() {
  std::memmove(text_, text_ + begin_, end_ - begin_);
  end_ -= begin_;
  begin_ = 0;
  raw_ = filled_ = end_;
  if (!make_room()) {
    return false;
  }
  const ssize_t count = read(fd_, text_ + filled_, is_stored_ ? kBlock : 1);
  if (count <= 0) {
    return false;
  }
  has_return_ = std::memchr(text_ + filled_, '\r', static_cast<size_t>(count)) != nullptr;
  has_nul_ = (has_nul_ && filled_ != 0) || std::memchr(text_ + filled_, '\0', static_cast<size_t>(count)) != nullptr;
  filled_ += static_cast<size_t>(count);
  return true;
}

// Makes room for one more block and a terminator after the text line so far. Returns false if there is no memory.
bool LineReader::make_room() {
  if (end_ + kBlock < size_) {
    return true;
  }
  const size_t size = 2 * size_;
  auto larger = tagged_block<char>(static_cast<uint32_t>(size));
  if (larger == nullptr) {
    is_short_of_memory_ = true;
    return false;
  }
  std::memcpy(larger.get(), text_, end_);
  buffer_ = std::move(larger);
  size_ = size;
  text_ = buffer_.get();
  return true;
}

// Appends the next `count` bytes to the text line, without their carriage returns.
void LineReader::take(size_t count) {
  if (end_ != raw_) {
    std::memmove(text_ + end_, text_ + raw_, count);
  }
  raw_ += count;
  char* const begin = text_ + end_;
  end_ = has_return_ ? static_cast<size_t>(std::remove(begin, begin + count, '\r') - text_) : end_ + count;
}

Text LineReader::next() {
  if (is_covered_) {
    text_[raw_] = covered_;
    is_covered_ = false;
  }
  begin_ = end_ = raw_;
  bool has_line_feed = false;
  while (!has_line_feed && end_ - begin_ < kLongest && (raw_ != filled_ || fill())) {
    const size_t most = std::min(filled_ - raw_, kLongest - (end_ - begin_));
    const auto* const line_feed = static_cast<const char*>(std::memchr(text_ + raw_, '\n', most));
    has_line_feed = line_feed != nullptr;
    take(has_line_feed ? static_cast<size_t>(line_feed - text_) - raw_ : most);
    raw_ += has_line_feed ? 1 : 0;
  }
  if (is_short_of_memory_ || (end_ == begin_ && !has_line_feed)) {
    return {nullptr, 0};
  }
  if (end_ == raw_) {
    covered_ = text_[end_];
    is_covered_ = true;
  }
  // Search before the terminator is written: a search directly after a write to the same bytes has to wait for it.
  const size_t length = has_nul_ ? strnlen(text_ + begin_, end_ - begin_) : end_ - begin_;
  text_[end_] = '\0';
  return {text_ + begin_, length};
}

}  // namespace tirn::cfg
