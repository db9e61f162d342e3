#include "temp_folder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace tirn::test {
namespace fs = std::filesystem;

TempFolder::TempFolder() {
  std::error_code ignored;
  path_ = (fs::temp_directory_path(ignored) / "tirn_test_XXXXXX").string();
  if (mkdtemp(path_.data()) == nullptr) {
    ADD_FAILURE() << "no temporary folder " << path_ << ", errno " << errno;
  }
}

TempFolder::~TempFolder() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string TempFolder::write_file(std::string_view name, std::string_view text, unsigned mode) const {
  const std::string file = path(name);
  fs::create_directories(fs::path(file).parent_path());
  std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
  chmod(file.c_str(), mode);
  return file;
}

std::string unique_name(std::string_view prefix) {
  static std::atomic<unsigned> counter{0};
  return std::string(prefix) + "_" + std::to_string(getpid()) + "_" + std::to_string(counter++);
}

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace tirn::test
