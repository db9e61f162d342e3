// Implements the parser of tirn/cfg.h.
#include <ctype.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "libtirn/base/bounds.h"
#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/base/rwlock_guard.h"
#include "libtirn/cfg/cfg_tree.h"
#include "libtirn/cfg/line_reader.h"
#include "tirn/fileops.h"

using namespace tirn;

namespace {

using cfg::Text;

constexpr size_t kShortestSectionLine = 2;
constexpr size_t kLongestSectionLine = KESA_CFG_NAME_SIZE - 1 + 2;
constexpr size_t kLongestTrimmed = KESA_CFG_LINE_SIZE - 2;

bool is_blank(char c) { return c == ' ' || c == '\t'; }

// Returns the text without the blanks at its ends. Blanks and ends of text lines after it are overwritten with NUL;
// blanks before it are only left out. If the text is still too long, `begin` of the result is nullptr.
inline Text kesa_cfg_trim_string(Text text) {
  while (text.length != 0 && is_blank(*text.begin)) {
    ++text.begin;
    --text.length;
  }
  while (text.length != 0) {
    char& last = text.begin[text.length - 1];
    if (!is_blank(last) && last != '\n' && last != '\r') {
      break;
    }
    last = '\0';
    --text.length;
  }
  if (text.length > kLongestTrimmed) [[unlikely]] {
    TIRN_DEBUG_AS("kesa_cfg_trim_string",
                  "The length (%d) of string (%s) is larger than limit (%d) when trim format of string.",
                  static_cast<int>(text.length), text.begin, static_cast<int>(kLongestTrimmed));
    return {nullptr, 0};
  }
  return text;
}

// Returns whether the text is a name; it may be empty. The process's locale decides what a letter is.
bool is_name(const char* text) {
  const unsigned short* const classes = *__ctype_b_loc();
  for (; *text != '\0'; ++text) {
    if ((classes[static_cast<unsigned char>(*text)] & _ISalnum) == 0 && *text != '_') {
      return false;
    }
  }
  return true;
}

// Returns whether the text line is a section, and if so rewrites "[ name ]" as "[name]".
bool kesa_cfg_is_section(Text line) {
  if (line.length < kShortestSectionLine || line.length > kLongestSectionLine || line.begin[0] != '[' ||
      line.begin[line.length - 1] != ']') {
    return false;
  }
  char scratch[kLongestSectionLine + 1];
  std::memcpy(scratch, line.begin + 1, line.length - 2);
  scratch[line.length - 2] = '\0';
  const Text name = kesa_cfg_trim_string({scratch, line.length - 2});
  if (!is_name(name.begin)) {
    return TIRN_DEBUG_AS("kesa_cfg_is_section", "The input string (%s) is not a section string.", line.begin), false;
  }
  std::memcpy(line.begin + 1, name.begin, name.length);
  std::memcpy(line.begin + 1 + name.length, "]", sizeof "]");
  return true;
}

// Copies the name from `line`, which is "[name]". kesa_cfg_is_section has limited its length, so the copy cannot
// fail and the former name is not lost.
void copy_section(const char* line, char (&section)[KESA_CFG_NAME_SIZE]) {
  const char* const begin = line + 1;
  if (strncpy_s(section, sizeof section, begin, std::strcspn(begin, "]")) != 0) {
    return TIRN_ERROR_AS("kesa_cfg_ini_fd_parse", "copy section name (%s) fail in copy section.", begin);
  }
}

struct Item {
  Text name;
  Text value;
};

// Splits `line` at its first "=" into the parts of an item. Returns whether it is one. May change `line`.
bool kesa_cfg_is_item(Text line, Item& item) {
  if (*line.begin == ';' || *line.begin == '=') {
    return false;
  }
  auto* const equals = static_cast<char*>(std::memchr(line.begin, '=', line.length));
  if (equals == nullptr) {
    return false;
  }
  *equals = '\0';
  const auto name_length = static_cast<size_t>(equals - line.begin);
  item.name = kesa_cfg_trim_string({line.begin, name_length});
  item.value = kesa_cfg_trim_string({equals + 1, line.length - name_length - 1});
  if (item.name.begin == nullptr || item.value.begin == nullptr) {
    return false;
  }
  if (!is_name(item.name.begin)) {
    TIRN_DEBUG_AS("kesa_cfg_is_item", "The input string (%s) is not a valid config item.", item.name.begin);
    return false;
  }
  return item.name.length < KESA_CFG_NAME_SIZE;
}

// Rewrites `line` as "name=value". It has enough room, since both parts come from a copy of it.
void join(Text line, const Item& item) {
  std::memcpy(line.begin, item.name.begin, item.name.length);
  line.begin[item.name.length] = '=';
  std::memcpy(line.begin + item.name.length + 1, item.value.begin, item.value.length + 1);
}

// A buffer for the copy of a text line, which is kept for the next one.
class Scratch {
 public:
  char* of_size(uint32_t size) {
    if (size > size_) {
      size_ = std::max(size, kLeast);
      block_ = tagged_block<char>(size_);
    }
    if (!block_) {
      size_ = 0;
    }
    return block_.get();
  }

 private:
  static constexpr uint32_t kLeast = 512;
  TaggedBlock<char> block_;
  uint32_t size_ = 0;
};

// Fills the item from a text line. The item's value then points into the scratch buffer.
bool kesa_cfg_parse_item(Text line, Scratch& scratch, kesa_cfg_item_node& item) {
  const auto size = static_cast<uint32_t>(line.length) + 1;
  char* const copy = scratch.of_size(size);
  if (copy == nullptr) {
    return TIRN_ERROR_AS("kesa_cfg_parse_item", "Alloc memory fail, size(%u).", size), false;
  }
  std::memcpy(copy, line.begin, size);
  Item parts{};
  if (!kesa_cfg_is_item({copy, line.length}, parts)) {
    return false;
  }
  join(line, parts);
  if (line.begin[parts.name.length] != '=') {  // cannot happen after join
    TIRN_DEBUG_AS("kesa_cfg_parse_item", "Can't find '=' in the string (%s), it's not a valid config item.",
                  line.begin);
    return false;
  }
  if (memcpy_s(item.itemName, sizeof item.itemName, parts.name.begin, parts.name.length + 1) != 0 ||
      parts.value.length >= KESA_CFG_VALUE_SIZE) {
    TIRN_ERROR_AS("kesa_cfg_parse_item", "copy item (%s=%s) fail in parse item.", parts.name.begin,
                  parts.value.begin);
    return false;
  }
  item.itemValue = parts.value.begin;
  return true;
}

// The resources and the state of one parse.
class Parse {
 public:
  explicit Parse(int fd) : lines_(fd) {}

  int32_t run(kesa_cfg_file_node* context, kesa_cfg_item_fn callback, void* argument) {
    kesa_cfg_item_node item{};
    for (Text line = lines_ ? lines_.next() : Text{}; line.begin != nullptr; line = lines_.next()) {
      const Text trimmed = kesa_cfg_trim_string(line);
      if (trimmed.begin == nullptr) {
        continue;
      }
      // Keep the leading blanks: "[", ";" and "=" have their meaning in the first column only.
      line.length = static_cast<size_t>(trimmed.begin - line.begin) + trimmed.length;
      if (kesa_cfg_is_section(line)) {
        copy_section(line.begin, section_);
        continue;
      }
      if (!kesa_cfg_parse_item(line, scratch_, item)) {
        continue;
      }
      const int32_t result = callback(context, section_, &item, argument);
      if (result != KESA_CFG_GO_ON) {
        return result;
      }
    }
    return lines_ ? kOk : kFail;
  }

 private:
  cfg::LineReader lines_;
  Scratch scratch_;
  char section_[KESA_CFG_NAME_SIZE] = "NULL";  // for the items before the first section
};

}  // namespace

int32_t kesa_cfg_ini_fd_parse(int fd, kesa_cfg_file_node* context, kesa_cfg_item_fn callback, void* argument) {
  const NoCancellation guard;
  std::optional<Parse> parse(std::in_place, fd);
  int32_t result = kFail;
  // The callback may end the thread; the parse is then released by the cleanup.
  run_with_cleanup([&] { result = parse->run(context, callback, argument); }, [&parse] { parse.reset(); });
  return result;
}

kesa_cfg_file_node* kesa_cfg_ini_file_parse(const char* file, kesa_cfg_item_fn callback, void* argument) {
  if (file == nullptr) {
    return TIRN_ERROR("Filename null pointer"), nullptr;
  }
  if (std::strlen(file) >= KESA_CFG_FILE_NAME_SIZE) {
    return TIRN_ERROR("File name length too long."), nullptr;
  }
  TaggedBlock<kesa_cfg_file_node> node(cfg::kesa_cfg_new_file_node(file), {__func__, __LINE__});
  if (!node) {
    return nullptr;
  }
  RwlockHold hold(node->rwlock, RwlockHold::kWriteMayblock);
  Fd fd(kesa_open(file, O_RDONLY | O_CLOEXEC, 0));
  if (!fd) {
    return TIRN_DEBUG("Open file (%s) failed, fd %d errno %d", file, fd.get(), errno), nullptr;
  }
  bool is_parsed = false;
  run_with_cleanup([&] { is_parsed = kesa_cfg_ini_fd_parse(fd.get(), node.get(), callback, argument) == kOk; },
                   [&] {
                     fd = {};
                     hold.release();
                     if (is_parsed) {
                       return;
                     }
                     if (callback == cfg::kesa_cfg_file_proc) {  // another callback owns what it has linked
                       cfg::kesa_cfg_destory_section(node.get());
                     }
                     node = nullptr;
                   });
  return node.release();
}
