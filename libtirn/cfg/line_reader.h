// The lines of a descriptor, for a parse of all of them.
#ifndef TIRN_CFG_LINE_READER_H
#define TIRN_CFG_LINE_READER_H

#include <sys/types.h>

#include <cstddef>

#include "libtirn/base/guard.h"

namespace tirn::cfg {

struct Text {
  char* begin;
  size_t length;
};

// What kesa_readline gives with a buffer of KESA_CFG_LINE_SIZE bytes, without the line feeds. A stored file is read in
// blocks; anything else byte by byte, so that it is never read beyond the line. Of the buffer only what is read is
// touched, which grows with the longest line.
class LineReader {
 public:
  explicit LineReader(int fd);
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;
  // Puts the descriptor behind the last line that was given out.
  ~LineReader();

  // False where there was no memory for the buffer, at first or for a long line.
  explicit operator bool() const { return buffer_ != nullptr && !is_short_of_memory_; }

  // The next line up to its first NUL, which the caller may change up to its terminator; nullptr at the end.
  Text next();

 private:
  bool fill();
  bool make_room();
  void take(size_t count);

  const int fd_;
  const bool is_stored_;
  TaggedBlock<char> buffer_;
  size_t size_;
  char* text_;
  bool is_short_of_memory_ = false;
  // Of the buffer: [begin, end) is the line so far, [raw, filled) what was read and not looked at.
  size_t begin_ = 0;
  size_t end_ = 0;
  size_t raw_ = 0;
  size_t filled_ = 0;
  // Of what was read last, and for a NUL also of the line so far: most files have neither.
  bool has_return_ = false;
  bool has_nul_ = false;
  // The byte that the last line's terminator stands on, if that one is not the line's own.
  bool is_covered_ = false;
  char covered_ = '\0';
};

}  // namespace tirn::cfg

#endif
