// Reads the text lines of a descriptor, for a parse that needs all of them.
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

// Gives the text lines that kesa_readline would give with a buffer of KESA_CFG_LINE_SIZE bytes, without the line
// feeds. A stored file is read in blocks. Anything else is read byte by byte, so that nothing after the text line is
// consumed. The buffer starts small and grows with the longest text line.
class LineReader {
 public:
  explicit LineReader(int fd);
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;
  // Sets the offset of a stored file to the byte after the last text line that was returned.
  ~LineReader();

  // False if there was no memory for the buffer, at the start or for a long text line.
  explicit operator bool() const { return buffer_ != nullptr && !is_short_of_memory_; }

  // Returns the next text line, up to its first NUL. The caller may change it, including its terminator, until the
  // next call. `begin` is nullptr at the end of the file, and if there is no memory.
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
  // Indexes of the buffer:
  //
  //   0            begin_      end_         raw_            filled_   size_
  //   | returned   | text line | gap: bytes | read, but not | unused  |
  //   | text lines | so far    | left out   | examined yet  |         |
  //
  // The gap is as long as the carriage returns and the line feed that were left out of the text line. fill() moves
  // the text line to the start of the buffer and closes the gap.
  size_t begin_ = 0;
  size_t end_ = 0;
  size_t raw_ = 0;
  size_t filled_ = 0;
  // Whether the last block read has a carriage return, and whether that block or the text line so far has a NUL. Most
  // files have neither, so the work for them is skipped.
  bool has_return_ = false;
  bool has_nul_ = false;
  // The byte that the terminator of the last text line overwrote, if it was not yet examined: without a gap, the
  // terminator is written at raw_.
  bool is_covered_ = false;
  char covered_ = '\0';
};

}  // namespace tirn::cfg

#endif
