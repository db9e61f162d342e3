// A file tree and a network that only the test process sees. Both last until the process ends. Threads that are
// started later see them too.
#ifndef TIRN_TEST_PRIVATE_ROOT_H
#define TIRN_TEST_PRIVATE_ROOT_H

#include <sys/types.h>

#include <set>
#include <string>
#include <string_view>

// Skips the test, with the reason, if the machine refuses namespaces.
#define TIRN_NEEDS_PRIVATE_ROOT(root) \
  if (!(root).refusal().empty()) {    \
    GTEST_SKIP() << (root).refusal(); \
  }                                   \
  static_assert(true)

#define TIRN_NEEDS_PRIVATE_NETWORK()                                                 \
  if (const std::string refusal = tirn::test::private_network(); !refusal.empty()) { \
    GTEST_SKIP() << refusal;                                                         \
  }                                                                                  \
  static_assert(true)

namespace tirn::test {

// Lays files and folders over absolute paths of the machine. The machine's own files never change: a changed folder
// is covered by a memory file system that shows the rest of the folder as before. Make at most one per process,
// before the process starts threads.
class PrivateRoot {
 public:
  PrivateRoot();
  PrivateRoot(const PrivateRoot&) = delete;
  PrivateRoot& operator=(const PrivateRoot&) = delete;

  // The reason why there is no private root; empty if there is one.
  const std::string& refusal() const { return refusal_; }

  // Writes a file and makes the folders above it as needed. Replaces what was at the path before.
  void write_file(const std::string& path, std::string_view text, unsigned mode = 0644);
  void mkdir(const std::string& path);
  // Makes the path show `source`, a file or folder that the layout does not cover.
  void bind(const std::string& source, const std::string& path);
  // Mounts an empty folder that hides what was there. `options` are those of mount, for example "size=64k".
  void tmpfs(const std::string& path, const std::string& options = {});
  // Makes the path missing.
  void remove(const std::string& path);

 private:
  bool is_ours(const std::string& path) const;
  void mount_memory(const std::string& folder, const std::string& options);
  void cover(const std::string& folder);
  void clear(const std::string& path);
  void make_room(const std::string& path);

  std::string refusal_;
  int covers_ = 0;
  std::set<dev_t> ours_;  // the file systems that hold the layout
};

// Gives the process a network of its own, in which only the loopback device exists and is up. Returns an empty text,
// or the reason why the network was refused.
std::string private_network();

}  // namespace tirn::test

#endif
