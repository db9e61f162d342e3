#include <bit>
#include <cstring>

#include "libtirn/base/bounds.h"
#include "tirn/str.h"

namespace {

constexpr char kBlack[] = KESA_COMMAND_SPECIAL;
constexpr size_t kBlackCount = sizeof kBlack - 1;

using Block = uint8_t __attribute__((vector_size(16)));

struct Halves {
  uint64_t low, high;
};

// Looks at 16 characters at once for any of the black ones.
bool has_black(const char* text, const Block (&black)[kBlackCount]) {
  Block block;
  std::memcpy(&block, text, sizeof block);  // one load
  Block found{};
#pragma GCC unroll 9
  for (const Block& character : black) {
    found |= static_cast<Block>(block == character);
  }
  const auto halves = std::bit_cast<Halves>(found);
  return (halves.low | halves.high) != 0;
}

}  // namespace

int isBlackChar(const char* c) { return std::memchr(kBlack, *c, kBlackCount) != nullptr ? 1 : 0; }

int isWhiteChar(const char* c, const char* white) {
  if (white == nullptr) {
    return 0;
  }
  const size_t length = std::strlen(white);
  return std::memchr(white, *c, length) != nullptr ? 1 : 0;
}

int isDangerousCmd(const char* cmd, const char* white) {
  const size_t length = cmd == nullptr ? 0 : std::strlen(cmd);
  if (length == 0) {
    return 0;
  }
  // An exempted character gives way to NUL, which no command holds.
  Block black[kBlackCount];
  for (size_t i = 0; i < kBlackCount; ++i) {
    const char character = isWhiteChar(&kBlack[i], white) != 0 ? '\0' : kBlack[i];
    black[i] = Block{} + static_cast<uint8_t>(character);
  }
  if (length < sizeof(Block)) {
    char padded[sizeof(Block)];
    memset_s(padded, sizeof padded, ' ', sizeof padded);
    memcpy_s(padded, sizeof padded, cmd, length);
    return has_black(padded, black) ? 1 : 0;
  }
  for (size_t at = 0; at + sizeof(Block) < length; at += sizeof(Block)) {
    if (has_black(cmd + at, black)) {
      return 1;
    }
  }
  return has_black(cmd + length - sizeof(Block), black) ? 1 : 0;  // the rest, with some of what was seen before
}
