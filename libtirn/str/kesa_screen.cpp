// Screens commands for special characters.
#include <cstring>

#include "tirn/str.h"

namespace {

constexpr char kBlack[] = KESA_COMMAND_SPECIAL;

}  // namespace

int isBlackChar(const char* c) { return std::memchr(kBlack, *c, sizeof kBlack - 1) != nullptr ? 1 : 0; }

int isWhiteChar(const char* c, const char* white) {
  return white != nullptr && *c != '\0' && std::strchr(white, *c) != nullptr ? 1 : 0;
}

int isDangerousCmd(const char* cmd, const char* white) {
  if (cmd == nullptr) {
    return 0;
  }
  while (*(cmd += std::strcspn(cmd, kBlack)) != '\0') {
    if (isWhiteChar(cmd++, white) == 0) {
      return 1;
    }
  }
  return 0;
}
