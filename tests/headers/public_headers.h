// What the public headers declare, read from their text.
#ifndef TIRN_TEST_PUBLIC_HEADERS_H
#define TIRN_TEST_PUBLIC_HEADERS_H

#include <cctype>
#include <filesystem>
#include <string>
#include <vector>

#include "support/temp_folder.h"

namespace tirn::test {

struct Declaration {
  std::string header;
  std::string name;
  bool is_function;
  std::string comment;  // that stands directly before it; empty where none does
};

inline std::vector<std::filesystem::path> public_headers() {
  std::vector<std::filesystem::path> paths;
  for (const auto& entry : std::filesystem::directory_iterator(TIRN_SOURCE_DIR "/include/tirn")) {
    if (entry.path().extension() == ".h") {  // what C++ adds declares nothing of its own
      paths.push_back(entry.path());
    }
  }
  return paths;
}

// The name that is declared: before the parameters, or the last before an array's bounds or the end.
inline Declaration read_declaration(const std::string& header, std::string text) {
  Declaration declaration{header, {}, false, {}};
  for (size_t at; (at = text.find("__attribute__")) != std::string::npos;) {
    int depth = 0;
    size_t end = text.find('(', at);
    do {
      depth += text[end] == '(' ? 1 : text[end] == ')' ? -1 : 0;
      ++end;
    } while (depth != 0 && end < text.size());
    text.erase(at, end - at);
  }
  declaration.is_function = text.find('(') != std::string::npos;
  size_t end = text.find_first_of("([;");
  while (end > 0 && std::isspace(static_cast<unsigned char>(text[end - 1]))) {
    --end;
  }
  size_t begin = end;
  while (begin > 0 && (std::isalnum(static_cast<unsigned char>(text[begin - 1])) || text[begin - 1] == '_')) {
    --begin;
  }
  declaration.name = text.substr(begin, end - begin);
  return declaration;
}

// Every declaration that a header marks for export.
inline std::vector<Declaration> exported_declarations() {
  std::vector<Declaration> declarations;
  for (const auto& path : public_headers()) {
    const std::string text = read_file(path);
    std::string comment;  // the last one, while nothing but blanks has followed
    for (size_t at = 0; at < text.size();) {
      const std::string_view rest = std::string_view(text).substr(at);
      if (rest.starts_with("/*")) {
        const size_t end = text.find("*/", at) + 2;
        comment = text.substr(at, end - at);
        at = end;
      } else if (rest.starts_with("#")) {
        while (at < text.size() && (text[at] != '\n' || text[at - 1] == '\\')) {
          ++at;
        }
        comment.clear();
      } else if (rest.starts_with("TIRN_API")) {
        const size_t end = text.find(';', at);
        declarations.push_back(read_declaration(path.filename(), text.substr(at, end + 1 - at)));
        declarations.back().comment = comment;
        comment.clear();
        at = end + 1;
      } else {
        if (!std::isspace(static_cast<unsigned char>(text[at]))) {
          comment.clear();
        }
        ++at;
      }
    }
  }
  return declarations;
}

}  // namespace tirn::test

#endif
