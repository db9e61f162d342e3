// File trees and networks that only the test process sees. Both last until the process ends, and threads that are
// started afterwards see them too.
#ifndef TIRN_TEST_PRIVATE_ROOT_H
#define TIRN_TEST_PRIVATE_ROOT_H

#include <sys/types.h>

#include <set>
#include <string>
#include <string_view>

// Skips the test, with the reason, where the machine refuses namespaces.
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

// Absolute paths laid out over the machine's own, which never change: what was there is covered by a memory file
// system that shows the rest of its folder as before. One for a process, made before its threads.
class PrivateRoot {
 public:
  PrivateRoot();
  PrivateRoot(const PrivateRoot&) = delete;
  PrivateRoot& operator=(const PrivateRoot&) = delete;

  // Why there is none; empty if all is well.
  const std::string& refusal() const { return refusal_; }

  // Folders on the way are made as needed. A path that was there before is replaced.
  void write_file(const std::string& path, std::string_view text, unsigned mode = 0644);
  void mkdir(const std::string& path);
  // The path shows `source`, a file or folder which the layout does not cover.
  void bind(const std::string& source, const std::string& path);
  // An empty folder that hides what was there; `options` as mount takes them: "size=64k".
  void tmpfs(const std::string& path, const std::string& options = {});
  // The path is missing.
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

// A network of the process's own, with nothing but the loopback device, up. Empty, or why it was refused.
std::string private_network();

}  // namespace tirn::test

#endif
