// Implements the screening of commands for special characters of tirn/str.h.
#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "libtirn/base/bounds.h"
#include "tirn/str.h"

namespace {

constexpr char kBlack[] = KESA_COMMAND_SPECIAL;
constexpr size_t kBlackCount = sizeof kBlack - 1;

// Sixteen characters that are compared with a special character at once.
using Block = uint8_t __attribute__((vector_size(16)));
constexpr size_t kBlock = sizeof(Block);

struct Lanes {
  uint8_t of[kBlackCount][kBlock];
};

constexpr Lanes lanes_of(const char* characters) {
  Lanes lanes{};
  for (size_t i = 0; i < kBlackCount; ++i) {
    std::fill_n(lanes.of[i], kBlock, static_cast<uint8_t>(characters[i]));
  }
  return lanes;
}
constexpr Lanes kAllBlack = lanes_of(kBlack);

Block load(const void* bytes) {
  Block block;
  std::memcpy(&block, bytes, sizeof block);
  return block;
}

// Returns whether any of kCount blocks holds a special character.
template <size_t kCount>
inline bool has_black(const char* text, const Lanes& black) {
  Block found{};
#pragma GCC unroll 4
  for (size_t at = 0; at < kCount * kBlock; at += kBlock) {
    const Block block = load(text + at);
#pragma GCC unroll 9
    for (const auto& lane : black.of) {
      found |= static_cast<Block>(block == load(lane));
    }
  }
  const auto halves = std::bit_cast<std::array<uint64_t, 2>>(found);
  return (halves[0] | halves[1]) != 0;
}

bool has_black(const char* text, size_t length, const Lanes& black) {
  if (length < kBlock) {
    char padded[kBlock];
    memset_s(padded, sizeof padded, ' ', sizeof padded);
    memcpy_s(padded, sizeof padded, text, length);
    return has_black<1>(padded, black);
  }
  const char* const last = text + length - kBlock;
  for (; last - text >= static_cast<ptrdiff_t>(3 * kBlock); text += 4 * kBlock) {
    if (has_black<4>(text, black)) {
      return true;
    }
  }
  for (; text < last; text += kBlock) {
    if (has_black<1>(text, black)) {
      return true;
    }
  }
  return has_black<1>(last, black);  // overlaps the blocks before it
}

}  // namespace

int isBlackChar(const char* c) { return std::memchr(kBlack, *c, kBlackCount) != nullptr ? 1 : 0; }

int isWhiteChar(const char* c, const char* white) {
  return white != nullptr && *c != '\0' && std::strchr(white, *c) != nullptr ? 1 : 0;
}

int isDangerousCmd(const char* cmd, const char* white) {
  const size_t length = cmd == nullptr ? 0 : std::strlen(cmd);
  if (length == 0) {
    return 0;
  }
  if (white == nullptr || *white == '\0') {
    return has_black(cmd, length, kAllBlack) ? 1 : 0;
  }
  char black[kBlackCount];
  for (size_t i = 0; i < kBlackCount; ++i) {
    // Replace an allowed character by NUL, which no command contains.
    black[i] = isWhiteChar(&kBlack[i], white) != 0 ? '\0' : kBlack[i];
  }
  return has_black(cmd, length, lanes_of(black)) ? 1 : 0;
}
