// Programs that only record how they are called, found first in PATH.
#ifndef TIRN_TEST_FAKE_TOOLS_H
#define TIRN_TEST_FAKE_TOOLS_H

#include <string>
#include <string_view>
#include <vector>

#include "temp_folder.h"

namespace tirn::test {

// PATH is put back, and the programs removed, at the end.
class FakeTools {
 public:
  FakeTools();
  FakeTools(const FakeTools&) = delete;
  FakeTools& operator=(const FakeTools&) = delete;
  ~FakeTools();

  // A program that writes `out` and exits with `status`. Adding a name again changes it.
  void add(std::string_view name, int status = 0, std::string_view out = {});
  // The script of such a program, for one that has to lie at an absolute path.
  std::string script(std::string_view name, int status = 0, std::string_view out = {}) const;
  // The calls so far, in order: name and arguments, with a space between each.
  std::vector<std::string> calls() const;
  void forget_calls();

 private:
  TempFolder folder_;
  std::string former_path_;
};

}  // namespace tirn::test

#endif
