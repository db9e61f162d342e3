#include "fake_tools.h"

#include <unistd.h>

#include <cstdlib>
#include <sstream>

namespace tirn::test {
namespace {

std::string quoted(std::string_view text) {
  std::string result = "'";
  for (const char c : text) {
    result += c == '\'' ? "'\\''" : std::string(1, c);
  }
  return result + "'";
}

}  // namespace

FakeTools::FakeTools() {
  const char* const path = getenv("PATH");
  former_path_ = path != nullptr ? path : "/usr/bin:/bin";
  setenv("PATH", (folder_.path() + ":" + former_path_).c_str(), 1);
}

FakeTools::~FakeTools() { setenv("PATH", former_path_.c_str(), 1); }

std::string FakeTools::script(std::string_view name, int status, std::string_view out) const {
  std::ostringstream text;
  text << "#!/bin/sh\n"
       << "line=" << quoted(name) << "\nfor argument; do line=\"$line $argument\"; done\n"
       << "printf '%s\\n' \"$line\" >>" << quoted(folder_.path(".calls")) << "\nprintf %s " << quoted(out)
       << "\nexit " << status << '\n';
  return text.str();
}

void FakeTools::add(std::string_view name, int status, std::string_view out) {
  folder_.write_file(name, script(name, status, out), 0755);
}

std::vector<std::string> FakeTools::calls() const {
  std::istringstream lines(read_file(folder_.path(".calls")));
  std::vector<std::string> calls;
  for (std::string line; std::getline(lines, line);) {
    calls.push_back(line);
  }
  return calls;
}

void FakeTools::forget_calls() { unlink(folder_.path(".calls").c_str()); }

}  // namespace tirn::test
