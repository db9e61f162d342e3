// Implements the reader of text lines of tirn/fileops.h.
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "libtirn/base/cancellation.h"
#include "libtirn/base/stored_file.h"
#include "tirn/fileops.h"

using namespace tirn;

namespace {

constexpr size_t kFirstBlock = 512;  // holds most text lines whole
constexpr size_t kBlock = 4096;

// A text line, as far as it has been read.
class Line {
 public:
  Line(char* text, size_t room) : text_(text), room_(room) {}

  bool is_complete() const { return held_ == room_ || has_line_feed_; }
  size_t room() const { return room_ - held_; }

  // Takes bytes until the text line is complete. Returns how many it took.
  size_t take(const char* bytes, size_t count) {
    const size_t most = std::min(count, room());
    const auto* const line_feed = static_cast<const char*>(std::memchr(bytes, '\n', most));
    const size_t length = line_feed == nullptr ? most : static_cast<size_t>(line_feed - bytes) + 1;
    if (std::memchr(bytes, '\r', length) != nullptr) {
      return take_singly(bytes, count);
    }
    std::memcpy(text_ + held_, bytes, length);
    held_ += length;
    has_line_feed_ = line_feed != nullptr;
    return length;
  }

  char* finish() {
    text_[held_] = '\0';
    return held_ == 0 ? nullptr : text_;
  }

 private:
  size_t take_singly(const char* bytes, size_t count) {
    size_t taken = 0;
    while (taken < count && !is_complete()) {
      const char byte = bytes[taken++];
      if (byte != '\r') {
        text_[held_++] = byte;
        has_line_feed_ = byte == '\n';
      }
    }
    return taken;
  }

  char* const text_;
  const size_t room_;
  size_t held_ = 0;
  bool has_line_feed_ = false;
};

// Reads ahead in blocks, then moves the descriptor back to the first byte after the text line.
void read_blocks(int fd, Line& line) {
  const NoCancellation guard;  // a cancellation would leave the descriptor too far ahead
  char block[kBlock];
  size_t size = kFirstBlock;
  while (!line.is_complete()) {
    const ssize_t count = read(fd, block, std::min(size, line.room()));
    if (count <= 0) {
      break;
    }
    const auto taken = static_cast<ssize_t>(line.take(block, static_cast<size_t>(count)));
    if (taken < count) {
      lseek(fd, taken - count, SEEK_CUR);
    }
    size = kBlock;
  }
}

void read_bytes(int fd, Line& line) {
  char byte = 0;
  while (!line.is_complete() && read(fd, &byte, 1) == 1) {
    line.take(&byte, 1);
  }
}

}  // namespace

char* kesa_readline(int fd, char* buffer, int size) {
  if (size < 1 || buffer == nullptr) {
    return nullptr;
  }
  Line line(buffer, static_cast<size_t>(size) - 1);
  if (!line.is_complete()) {
    if (is_stored_file(fd)) {
      read_blocks(fd, line);
    } else {
      read_bytes(fd, line);
    }
  }
  return line.finish();
}
