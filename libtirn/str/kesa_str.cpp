// Implements the text helpers of tirn/str.h.
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "tirn/str.h"

using namespace tirn;

namespace {

// The position from which the next call of kesa_str_tok continues.
constinit char* g_position = nullptr;

bool has_hex_prefix(const char* text) { return text[0] == '0' && (text[1] == 'x' || text[1] == 'X'); }

void cut_at(char* text, char c) {
  if (char* const at = std::strchr(text, c); at != nullptr) {
    *at = '\0';
  }
}

// Overwrites a run of delimiters with NULs and returns the position after it.
char* clear_run(char* at, const char* delim) {
  for (; *at != '\0' && std::strchr(delim, *at) != nullptr; ++at) {
    *at = '\0';
  }
  return at;
}

}  // namespace

int kesa_ismodevalid(const char* mode) {
  const bool is_valid = mode != nullptr && (std::strcmp(mode, "r") == 0 || std::strcmp(mode, "w") == 0);
  return is_valid ? kOk : kFail;
}

int kesa_get_charpos(const char* str, char c, unsigned* pos) {
  if (str == nullptr || pos == nullptr) {
    return TIRN_ERROR("Parameter is NULL."), -EINVAL;
  }
  const char* const at = c == '\0' ? nullptr : std::strchr(str, c);
  if (at == nullptr) {
    return kFail;
  }
  *pos = static_cast<unsigned>(at - str);
  return kOk;
}

void kesa_filter_newlinesymbol(char* str) {
  if (str == nullptr) {
    return TIRN_ERROR("Parameter is NULL.");
  }
  cut_at(str, '\r');
  cut_at(str, '\n');
}

uint64_t kesa_str_tou64(const char* str) {
  if (str == nullptr) {
    return TIRN_ERROR("Strtou64 fail because pStr is null."), 0;
  }
  errno = 0;
  const uint64_t value = std::strtoull(str, nullptr, has_hex_prefix(str) ? 16 : 10);
  if (const int error = errno; error != 0) {
    char text[128];
    TIRN_ERROR("Strtou64 fail because of error %d, %s.", error, strerror_r(error, text, sizeof text));
  }
  return value;
}

int64_t kesa_str_tos64(const char* str) {
  if (str == nullptr) {
    return TIRN_INFO("Strtos64 fail because pStr is null."), 0;
  }
  const uint64_t value = *str == '-' ? 0 - kesa_str_tou64(str + 1) : kesa_str_tou64(str);
  return static_cast<int64_t>(value);
}

int kesa_str_isuint(const char* str) {
  if (str == nullptr) {
    return -EINVAL;
  }
  const bool is_hex = has_hex_prefix(str);
  for (const char* at = is_hex ? str + 2 : str; *at != '\0'; ++at) {
    const auto c = static_cast<unsigned char>(*at);
    if ((is_hex ? std::isxdigit(c) : std::isdigit(c)) == 0) {
      return kFail;
    }
  }
  return kOk;
}

void kesa_str_tolower(char* str) {
  if (str == nullptr) {
    return;
  }
  const int32_t* const lower = *__ctype_tolower_loc();
  for (char* at = str; *at != '\0'; ++at) {
    *at = static_cast<char>(lower[static_cast<unsigned char>(*at)]);
  }
}

char* check_parameter(char** str, char* saved, const char* delim) {
  if (str == nullptr) {
    return TIRN_ERROR("Param(%p)  is null.", static_cast<void*>(str)), nullptr;
  }
  if (saved == nullptr && *str == nullptr) {
    return TIRN_ERROR("Param(%p %p )  is null.", static_cast<void*>(*str), static_cast<void*>(saved)), nullptr;
  }
  if (delim == nullptr) {
    return TIRN_ERROR("Param(%p)  is null.", static_cast<const void*>(delim)), nullptr;
  }
  if (*str == nullptr) {
    *str = saved;
  }
  return *str;
}

char* kesa_str_tok(char* str, const char* delim) {
  char* token = check_parameter(&str, g_position, delim);
  if (token == nullptr) {
    return TIRN_ERROR("Param(%p)  is null.", static_cast<void*>(token)), nullptr;
  }
  char* at = token;
  while (*at != '\0') {
    if (char* const behind = clear_run(at, delim); behind != at) {
      at = behind;
      if (*at == '\0') {
        break;
      }
      if (*token != '\0') {
        g_position = at;
        return token;
      }
      token = at;  // the run came before the token
    }
    ++at;
  }
  g_position = nullptr;
  return token;
}
