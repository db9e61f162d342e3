// Programs that only record how they are called. They come first in PATH.
#ifndef TIRN_TEST_FAKE_TOOLS_H
#define TIRN_TEST_FAKE_TOOLS_H

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "temp_folder.h"

namespace tirn::test {

// The destructor restores PATH and removes the programs.
class FakeTools {
 public:
  FakeTools() { setenv("PATH", (folder_.path() + ":" + former_path_).c_str(), 1); }
  FakeTools(const FakeTools&) = delete;
  FakeTools& operator=(const FakeTools&) = delete;
  ~FakeTools() { setenv("PATH", former_path_.c_str(), 1); }

  // Adds a program that writes `out`, a word in the shell's syntax, and exits with `status`.
  void add(const std::string& name, int status = 0, const std::string& out = "''") const {
    folder_.write_file(name,
                       "#!/bin/sh\necho " + name + " \"$@\" >>" + folder_.path(".calls") + "\nprintf %s " + out +
                           "\nexit " + std::to_string(status) + "\n",
                       0755);
  }
  // Returns the calls so far, in order: the name and the arguments, separated by spaces.
  std::vector<std::string> calls() const {
    std::istringstream lines(read_file(folder_.path(".calls")));
    std::vector<std::string> calls;
    for (std::string line; std::getline(lines, line);) {
      calls.push_back(line);
    }
    return calls;
  }

 private:
  TempFolder folder_;
  std::string former_path_ = getenv("PATH") != nullptr ? getenv("PATH") : "/usr/bin:/bin";
};

}  // namespace tirn::test

#endif
