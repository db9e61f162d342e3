// What libtirn.so exports is what its headers declare, no more and no less.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <set>
#include <sstream>

#include "headers/public_headers.h"

using namespace tirn::test;

namespace {

std::string output_of(const std::string& command) {
  std::string text;
  std::FILE* const pipe = popen(command.c_str(), "re");
  char piece[4096];
  while (size_t length = std::fread(piece, 1, sizeof piece, pipe)) {
    text.append(piece, length);
  }
  EXPECT_EQ(pclose(pipe), 0) << command << '\n' << text;
  return text;
}

struct Symbol {
  std::string type;  // FUNC, OBJECT, TLS
  std::string binding;
  std::string version;
};

// The defined dynamic symbols; readelf reads the libraries of any processor.
std::map<std::string, Symbol> exported_symbols() {
  std::map<std::string, Symbol> symbols;
  std::istringstream lines(output_of("LC_ALL=C readelf --dyn-syms -W '" TIRN_LIBRARY "'"));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string number, value, size, type, binding, visibility, section, name;
    fields >> number >> value >> size >> type >> binding >> visibility >> section;
    // Some processors mark a function's calling convention between the two.
    while (fields >> name && name.front() == '[') {
    }
    if (name.empty() || section == "UND" || section == "ABS" || section == "Ndx" || type == "SECTION" ||
        name.starts_with("__odr_asan")) {
      continue;
    }
    const size_t at = name.find('@');
    symbols[name.substr(0, at)] = {type, binding, at != std::string::npos ? name.substr(name.rfind('@') + 1) : ""};
  }
  return symbols;
}

// Those that a program may put its own in place of.
const std::set<std::string> kWeak = {"ps_get_version"};

TEST(Exports, AreWhatTheHeadersDeclare) {
  const auto symbols = exported_symbols();
  std::map<std::string, Declaration> declared;
  for (Declaration& each : exported_declarations()) {
    declared.emplace(each.name, each);
  }
  ASSERT_GT(declared.size(), 50u);
  for (const auto& [name, declaration] : declared) {
    const auto found = symbols.find(name);
    if (found == symbols.end()) {
      ADD_FAILURE() << declaration.header << " declares " << name << ", which is not exported";
      continue;
    }
    const Symbol& symbol = found->second;
    EXPECT_EQ(symbol.version, "TIRN_1") << name;
    EXPECT_EQ(symbol.type == "FUNC", declaration.is_function) << name << ' ' << symbol.type;
    EXPECT_EQ(symbol.binding, kWeak.count(name) != 0 ? "WEAK" : "GLOBAL") << name;
  }
  for (const auto& [name, symbol] : symbols) {
    EXPECT_TRUE(declared.count(name) != 0) << name << " is exported, but no header declares it";
  }
}

// Constructors would run at load, before anybody asked for anything. What is there is the compiler's own.
TEST(Exports, NothingRunsAtLoad) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers put constructors of their own into each file";
#endif
  const std::string entries = output_of("LC_ALL=C readelf -d -W '" TIRN_LIBRARY "'");
  const size_t at = entries.find("(INIT_ARRAYSZ)");
  ASSERT_NE(at, std::string::npos) << entries;
  const size_t constructors = std::stoul(entries.substr(at + 14)) / sizeof(void*);
  const std::string symbols = output_of("LC_ALL=C readelf -s -W '" TIRN_LIBRARY "'");
  size_t known = 0;
  for (const char* const name : {" frame_dummy\n", " __cpu_indicator_init\n", " init_have_lse_atomics\n"}) {
    known += symbols.find(name) != std::string::npos ? 1 : 0;
  }
  EXPECT_EQ(constructors, known) << "look for _GLOBAL__sub_I_ in the object files";
}

}  // namespace
