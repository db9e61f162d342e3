// The INI parser and the line reader against plain ones, on a file and on a pipe. An input is a byte that tells how
// many items are wanted (0: all), and a file's text.
#include <sys/mman.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "hurn.h"
#include "tirn/cfg.h"
#include "tirn/fileops.h"

namespace {

struct Item {
  std::string section, name, value;
  bool operator==(const Item&) const = default;
};

// Byte by byte.
struct PlainReader {
  std::string_view bytes;
  size_t at = 0;

  bool line(size_t size, std::string& text) {
    text.clear();
    while (text.size() < size - 1 && at < bytes.size()) {
      const char c = bytes[at++];
      if (c != '\r') {
        text += c;
      }
      if (c == '\n') {
        break;
      }
    }
    return !text.empty();
  }
};

std::string trimmed(const std::string& text) {
  const size_t begin = std::min(text.find_first_not_of(" \t"), text.size());
  return text.substr(begin, text.find_last_not_of(" \t\r\n") + 1 - begin);
}

bool is_name(const std::string& text) {
  for (const unsigned char c : text) {
    if (isalpha(c) == 0 && isdigit(c) == 0 && c != '_') {
      return false;
    }
  }
  return true;
}

// Step by step.
std::vector<Item> parse_plainly(PlainReader& reader, size_t wanted) {
  std::vector<Item> items;
  std::string section = "NULL";
  for (std::string line; reader.line(KESA_CFG_LINE_SIZE, line);) {
    line.resize(line.find('\0') == std::string::npos ? line.size() : line.find('\0'));
    if (trimmed(line).size() > 4194368) {
      continue;
    }
    line.resize(line.find_last_not_of(" \t\r\n") + 1);
    if (line.size() >= 2 && line.size() <= 65 && line.front() == '[' && line.back() == ']') {
      const std::string name = trimmed(line.substr(1, line.size() - 2));
      if (is_name(name)) {
        section = name;
        continue;
      }
    }
    const size_t equals = line.find('=');
    if (equals == std::string::npos || line[0] == ';' || line[0] == '=') {
      continue;
    }
    const Item item{section, trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1))};
    if (is_name(item.name) && item.name.size() <= 63 && item.value.size() <= 4194303) {
      items.push_back(item);
      if (items.size() == wanted) {
        break;
      }
    }
  }
  return items;
}

struct Source {
  int fd = -1;
  explicit Source(std::string_view text, bool is_pipe) {
    int ends[2]{};
    fd = is_pipe ? (pipe(ends), ends[0]) : memfd_create("cfg", 0);
    const int to = is_pipe ? ends[1] : fd;
    if (write(to, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      std::abort();
    }
    is_pipe ? close(to) : lseek(fd, 0, SEEK_SET);
  }
  ~Source() { close(fd); }
};

void expect(bool condition) {
  if (!condition) {
    std::abort();
  }
}

// The descriptor stands where the plain reader stopped.
void expect_position(int fd, PlainReader reader, bool is_pipe) {
  if (!is_pipe) {
    expect(lseek(fd, 0, SEEK_CUR) == static_cast<off_t>(reader.at));
    return;
  }
  std::string rest(reader.bytes.size() + 1, '\0');
  const ssize_t count = read(fd, rest.data(), rest.size());
  expect(count >= 0 && rest.substr(0, static_cast<size_t>(count)) == reader.bytes.substr(reader.at));
}

struct Collected {
  std::vector<Item> items;
  size_t wanted;
};

int32_t collect(kesa_cfg_file_node*, const char* section, const kesa_cfg_item_node* item, void* argument) {
  auto& collected = *static_cast<Collected*>(argument);
  collected.items.push_back({section, item->itemName, item->itemValue});
  return collected.items.size() == collected.wanted ? 7 : KESA_CFG_GO_ON;
}

void check_parser(std::string_view text, size_t wanted, bool is_pipe) {
  const Source source(text, is_pipe);
  Collected found{{}, wanted};
  const int32_t result = kesa_cfg_ini_fd_parse(source.fd, nullptr, collect, &found);
  PlainReader reader{text};
  const std::vector<Item> expected = parse_plainly(reader, wanted);
  expect(found.items == expected);
  expect(result == (wanted != 0 && expected.size() == wanted ? 7 : 0));
  expect_position(source.fd, reader, is_pipe);
}

void check_reader(std::string_view text, size_t size, bool is_pipe) {
  const Source source(text, is_pipe);
  PlainReader reader{text};
  std::string expected;
  std::vector<char> line(size);
  for (size_t count = 0; reader.line(size, expected); ++count) {
    expect(kesa_readline(source.fd, line.data(), static_cast<int>(size)) == line.data());
    expect(std::string_view(line.data(), expected.size()) == expected && line[expected.size()] == '\0');
    if (!is_pipe) {
      expect_position(source.fd, reader, false);
    }
  }
  expect(kesa_readline(source.fd, line.data(), static_cast<int>(size)) == nullptr);
  expect_position(source.fd, reader, is_pipe);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > 60000) {  // a pipe holds no more
    return 0;
  }
  const hurn_content_record quiet{HURN_CALLBACK_ONLY, [](const hurn_line*) {}};
  hurn_register_content_callback(&quiet);
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  for (const bool is_pipe : {false, true}) {
    check_parser(text, data[0], is_pipe);
    for (size_t line_size = 1; line_size < 20; ++line_size) {
      check_reader(text, line_size, is_pipe);
    }
    check_reader(text, 600, is_pipe);
    check_reader(text, 70000, is_pipe);
  }
  return 0;
}
