// A folder for the files of one test, and names that no other test process uses.
#ifndef TIRN_TEST_TEMP_FOLDER_H
#define TIRN_TEST_TEMP_FOLDER_H

#include <string>
#include <string_view>

namespace tirn::test {

// The destructor removes the folder with everything in it.
class TempFolder {
 public:
  TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  ~TempFolder();

  const std::string& path() const { return path_; }
  std::string path(std::string_view name) const { return path_ + "/" + std::string(name); }
  // Writes a file and makes the folders above it. Returns its path.
  std::string write_file(std::string_view name, std::string_view text, unsigned mode = 0644) const;

 private:
  std::string path_;
};

// Returns "prefix_PID_N", a name for a shared memory object, a semaphore or a socket.
std::string unique_name(std::string_view prefix);

// Returns the file's bytes, or an empty text if it cannot be read.
std::string read_file(const std::string& path);

}  // namespace tirn::test

#endif
