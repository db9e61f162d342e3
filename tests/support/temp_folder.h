// A folder for one test's files, and names that no other test process uses.
#ifndef TIRN_TEST_TEMP_FOLDER_H
#define TIRN_TEST_TEMP_FOLDER_H

#include <string>
#include <string_view>

namespace tirn::test {

// Removed with all that is in it.
class TempFolder {
 public:
  TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  ~TempFolder();

  const std::string& path() const { return path_; }
  std::string path(std::string_view name) const { return path_ + "/" + std::string(name); }
  // Writes a file, with the folders on its way; its path.
  std::string write_file(std::string_view name, std::string_view text, unsigned mode = 0644) const;

 private:
  std::string path_;
};

// "prefix_PID_N": for shared memory objects, semaphores, sockets.
std::string unique_name(std::string_view prefix);

// The file's bytes; empty where it cannot be read.
std::string read_file(const std::string& path);

}  // namespace tirn::test

#endif
