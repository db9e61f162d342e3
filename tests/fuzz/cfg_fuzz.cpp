// Compares the INI parser and the reader of text lines with plain ones, on a file and on a pipe. An input is a byte
// and the text of a file. The low bits of the byte are the number of items that are wanted (0: all), the others
// choose the room for a text line.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "hurn.h"
#include "tirn/cfg.h"
#include "tirn/fileops.h"

namespace {

// The items found, as a text with a row "section.name=value" for each.
struct Items {
  size_t wanted;
  std::string text;

  // Returns whether that was the last item that is wanted.
  bool add(const std::string& section, const std::string& name, const std::string& value) {
    text += section + "." + name + "=" + value + "\n";
    return --wanted == 0;
  }
};

// The plain reader: it takes byte after byte.
struct PlainReader {
  std::string_view bytes;
  size_t at = 0;

  bool line(size_t size, std::string& text) {
    text.clear();
    while (text.size() < size - 1 && at < bytes.size() && !text.ends_with('\n')) {
      text.append(bytes[at] != '\r', bytes[at]);
      ++at;
    }
    return !text.empty();
  }
};

std::string trimmed(const std::string& text) {
  const size_t begin = std::min(text.find_first_not_of(" \t"), text.size());
  return text.substr(begin, text.find_last_not_of(" \t\r\n") + 1 - begin);
}

bool is_name(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](unsigned char c) { return isalnum(c) != 0 || c == '_'; });
}

// The plain parser: it tests each text line for each form in turn.
Items parse_plainly(PlainReader& reader, size_t wanted) {
  Items items{wanted, ""};
  std::string section = "NULL";
  for (std::string line; reader.line(KESA_CFG_LINE_SIZE, line);) {
    line.resize(std::min(line.size(), line.find('\0')));
    if (trimmed(line).size() > 4194368) {
      continue;
    }
    line.resize(line.find_last_not_of(" \t\r\n") + 1);
    const bool has_brackets = line.size() >= 2 && line.front() == '[' && line.back() == ']';
    const std::string inner = has_brackets ? trimmed(line.substr(1, line.size() - 2)) : "";
    const size_t equals = line.find('=');
    if (has_brackets && line.size() <= 65 && is_name(inner)) {
      section = inner;
    } else if (equals != std::string::npos && line[0] != ';' && line[0] != '=') {
      const std::string name = trimmed(line.substr(0, equals)), value = trimmed(line.substr(equals + 1));
      if (is_name(name) && name.size() <= 63 && value.size() <= 4194303 && items.add(section, name, value)) {
        break;
      }
    }
  }
  return items;
}

void expect(bool condition) {
  if (!condition) {
    std::abort();
  }
}

// A descriptor that a text can be read from. A pipe gets only a piece of it, as each of its bytes takes a read.
struct Source {
  int fd = -1;
  PlainReader reader;
  Source(std::string_view text, bool is_pipe) : reader{is_pipe ? text.substr(0, 128) : text} {
    int ends[2]{};
    fd = is_pipe ? (pipe2(ends, O_NONBLOCK), ends[0]) : memfd_create("cfg", 0);
    const ssize_t written = write(is_pipe ? ends[1] : fd, reader.bytes.data(), reader.bytes.size());
    expect(written == static_cast<ssize_t>(reader.bytes.size()));
    is_pipe ? close(ends[1]) : lseek(fd, 0, SEEK_SET);
  }
  ~Source() { close(fd); }

  // Expects the descriptor to be at the place where the plain reader stopped.
  void expect_place() const {
    std::string rest(reader.bytes.size() + 1, '\0');
    const ssize_t count = read(fd, rest.data(), rest.size());
    expect(count >= 0 && rest.substr(0, static_cast<size_t>(count)) == reader.bytes.substr(reader.at));
  }
};

int32_t collect(kesa_cfg_file_node*, const char* section, const kesa_cfg_item_node* item, void* items) {
  return static_cast<Items*>(items)->add(section, item->itemName, item->itemValue) ? 7 : KESA_CFG_GO_ON;
}

void check_parser(Source&& source, size_t wanted) {
  Items found{wanted, ""};
  const int32_t result = kesa_cfg_ini_fd_parse(source.fd, nullptr, collect, &found);
  const Items expected = parse_plainly(source.reader, wanted);
  expect(found.text == expected.text && result == (wanted != 0 && expected.wanted == 0 ? 7 : 0));
  source.expect_place();
}

void check_reader(Source&& source, size_t size) {
  std::string expected;
  std::vector<char> line(size);
  bool is_line = true;
  for (int lines = 0; is_line && lines < 64; ++lines) {
    is_line = source.reader.line(size, expected);
    expect(kesa_readline(source.fd, line.data(), static_cast<int>(size)) == (is_line ? line.data() : nullptr));
    expect(!is_line || (std::string_view(line.data(), expected.size()) == expected && line[expected.size()] == '\0'));
  }
  source.expect_place();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const hurn_content_record quiet{HURN_CALLBACK_ONLY, [](const hurn_line*) {}};
  hurn_register_content_callback(&quiet);
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  for (const bool is_pipe : {false, true}) {
    if (!input.empty()) {
      const size_t room = data[0] / 8u;
      check_parser(Source(input.substr(1), is_pipe), data[0] % 8);
      check_reader(Source(input, is_pipe), room == 31 ? 9000 : room == 30 ? 600 : room + 1);
    }
  }
  return 0;
}
