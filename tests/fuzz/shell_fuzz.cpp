// Compares the screen for commands and the tokens of a text with plain ones. An input is the allowed characters,
// which are the delimiters too, a NUL and the text.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "hurn.h"
#include "tirn/str.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const hurn_content_record quiet{HURN_CALLBACK_ONLY, [](const hurn_line*) {}};
  hurn_register_content_callback(&quiet);
  const char* const input = reinterpret_cast<const char*>(data);
  char* const set = strndup(input, size);  // of exact size, so that the sanitizer sees each read beyond it
  const size_t begin = std::min(size, std::strlen(set) + 1);
  char* const text = strndup(input + begin, size - begin);

  bool is_dangerous = false;
  std::vector<std::string_view> expected, found;
  for (const char *at = text, *token = text;; ++at) {
    is_dangerous |= *at != '\0' && std::strchr("|;&$<>!\n`", *at) != nullptr && std::strchr(set, *at) == nullptr;
    if (std::strchr(set, *at) != nullptr) {  // strchr finds the terminator too
      if (at != token || (*at == '\0' && expected.empty())) {
        expected.emplace_back(token, at);
      }
      token = at + 1;
    }
    if (*at == '\0') {
      break;
    }
  }
  if ((isDangerousCmd(text, set) != 0) != is_dangerous) {
    std::abort();
  }
  for (char* token = kesa_str_tok(text, set); token != nullptr; token = kesa_str_tok(nullptr, set)) {
    found.emplace_back(token);
  }
  // For a text without a token, one empty token is expected.
  if (!std::equal(found.begin(), found.end(), expected.begin(), expected.end())) {
    std::abort();
  }
  std::free(set);
  std::free(text);
  return 0;
}
