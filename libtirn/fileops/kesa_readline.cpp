#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "libtirn/base/stored_file.h"
#include "tirn/fileops.h"

namespace {

constexpr size_t kFirstBlock = 512;  // holds most lines whole
constexpr size_t kBlock = 4096;

// The line as far as it is read.
class Line {
 public:
  Line(char* text, size_t room) : text_(text), room_(room) {}

  bool is_complete() const { return held_ == room_ || has_line_feed_; }
  size_t room() const { return room_ - held_; }

  // Takes bytes until the line is complete; how many.
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

// Where this thread's last line ended. A descriptor that stands there needs no new look at what it is.
// Signal handlers read lines too: whoever is interrupted between the two words must not take a wrong pair for the place.
class Place {
 public:
  void set(int fd, off_t position) {
    forget();
    position_.store(position, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_release);  // pairs with the one of is()
    fd_.store(fd, std::memory_order_relaxed);
  }

  void forget() {
    fd_.store(-1, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_release);
  }

  bool is(int fd, off_t position) const {
    const bool is_there = position_.load(std::memory_order_relaxed) == position;
    std::atomic_signal_fence(std::memory_order_acquire);
    return is_there && fd_.load(std::memory_order_relaxed) == fd;
  }

 private:
  std::atomic<int> fd_{-1};
  std::atomic<off_t> position_{0};
};
constinit thread_local Place t_last_line;

// The position of a descriptor that can be read ahead of it, or -1.
off_t position_to_read_at(int fd) {
  const int error = errno;
  off_t position = lseek(fd, 0, SEEK_CUR);
  if (position >= 0 && !t_last_line.is(fd, position) && !tirn::is_stored_file(fd)) {
    position = -1;
  }
  errno = error;
  return position;
}

void read_blocks(int fd, off_t position, Line& line) {
  char block[kBlock];
  const off_t begin = position;
  size_t size = kFirstBlock;
  while (!line.is_complete()) {
    const ssize_t count = pread(fd, block, std::min(size, line.room()), position);
    if (count <= 0) {
      break;
    }
    position += static_cast<off_t>(line.take(block, static_cast<size_t>(count)));
    size = kBlock;
  }
  if (position != begin) {
    lseek(fd, position, SEEK_SET);
    t_last_line.set(fd, position);
  }
}

void read_bytes(int fd, Line& line) {
  t_last_line.forget();
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
    const off_t position = position_to_read_at(fd);
    if (position >= 0) {
      read_blocks(fd, position, line);
    } else {
      read_bytes(fd, line);
    }
  }
  return line.finish();
}
