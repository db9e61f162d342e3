#include "private_root.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

namespace tirn::test {
namespace {
namespace fs = std::filesystem;

// Only root may enter a namespace. Any other user becomes the root of a user namespace first.
std::string enter_namespace(int kind, const char* name) {
  const uid_t user = geteuid();
  const gid_t group = getegid();
  if (unshare(user == 0 ? kind : kind | CLONE_NEWUSER) != 0) {
    return std::string("no ") + name + " namespace here: " + std::strerror(errno);
  }
  if (user != 0) {
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
  }
  return {};
}

void expect_done(bool done, const char* what, const std::string& path) {
  EXPECT_TRUE(done) << what << ' ' << path << ": " << std::strerror(errno);
}

bool is_there(const std::string& path) {
  std::error_code ignored;
  return fs::exists(fs::symlink_status(path, ignored));
}

// Makes `target` show `source`: a symbolic link is copied, a file or folder is bound to a new one of the same kind.
void show(const std::string& source, const std::string& target) {
  std::error_code error;
  const fs::file_status status = fs::symlink_status(source, error);
  if (fs::is_symlink(status)) {
    fs::copy_symlink(source, target, error);
    EXPECT_FALSE(error) << target << ": " << error.message();
    return;
  }
  if (fs::is_directory(status)) {
    fs::create_directory(target, source, error);
  } else {
    std::ofstream(target).close();
  }
  expect_done(mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0 || !is_there(source),
              "bind", target);
}

std::vector<std::string> entries(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code ignored;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder, ignored)) {
    names.push_back(entry.path().filename());
  }
  return names;
}

}  // namespace

PrivateRoot::PrivateRoot() {
  refusal_ = enter_namespace(CLONE_NEWNS, "mount");
  if (!refusal_.empty()) {
    return;
  }
  std::error_code ignored;
  const fs::path here = fs::current_path(ignored);
  const bool is_private = mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
  // The machine's root may be read-only or belong to another user, so no entries can be added to it, and a memory
  // file system is mounted over it. That mount is reached as "/..", while "/" still is the machine's root until the
  // chroot.
  if (is_private) {
    cover("/..");
  }
  if (!is_private || chroot("/..") != 0 || chdir(here.c_str()) != 0) {
    refusal_ = std::string("the root cannot be changed here: ") + std::strerror(errno);
  }
}

bool PrivateRoot::is_ours(const std::string& path) const {
  struct stat status;
  return lstat(path.c_str(), &status) == 0 && ours_.count(status.st_dev) != 0;
}

void PrivateRoot::mount_memory(const std::string& folder, const std::string& options) {
  expect_done(mount("tirn_test", folder.c_str(), "tmpfs", 0, options.c_str()) == 0, "tmpfs", folder);
  struct stat status;
  if (stat(folder.c_str(), &status) == 0) {
    ours_.insert(status.st_dev);
  }
}

// Mounts a memory file system over a folder of the machine. The mount shows the folder's entries.
void PrivateRoot::cover(const std::string& folder) {
  const int machine_folder = open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  const std::string machine_path = "/proc/self/fd/" + std::to_string(machine_folder) + "/.";
  struct stat status;
  fstat(machine_folder, &status);
  char mode[32];
  snprintf(mode, sizeof mode, "mode=%o", status.st_mode & 07777);
  mount_memory(folder, mode);
  for (const std::string& name : entries(machine_path)) {
    show(machine_path + "/" + name, folder + "/" + name);
  }
  close(machine_folder);
}

// Removes what the layout shows at the path. The machine's own files are only unmounted, never removed.
void PrivateRoot::clear(const std::string& path) {
  while (umount2(path.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) == 0) {
  }
  if (!is_there(path)) {
    return;
  }
  if (!is_ours(path)) {
    ADD_FAILURE() << path << " cannot be replaced";
    return;
  }
  if (fs::is_directory(fs::symlink_status(path))) {
    for (const std::string& name : entries(path)) {
      clear(path + "/" + name);
    }
  }
  expect_done(::remove(path.c_str()) == 0, "remove", path);
}

// Makes sure that the path's folder exists and belongs to the layout, and that the path itself is free.
void PrivateRoot::make_room(const std::string& path) {
  fs::path folder = fs::path(path).parent_path();
  while (!fs::exists(folder)) {
    folder = folder.parent_path();
  }
  folder = fs::canonical(folder);
  if (!is_ours(folder)) {
    cover(folder);
  }
  std::error_code error;
  fs::create_directories(fs::path(path).parent_path(), error);
  EXPECT_FALSE(error) << path << ": " << error.message();
  clear(path);
}

void PrivateRoot::write_file(const std::string& path, std::string_view text, unsigned mode) {
  const bool is_file = fs::is_regular_file(fs::symlink_status(path));
  if (is_file && !is_ours(path)) {
    // Covers the file alone, because its folder may change, above all in /proc.
    const std::string cover = "/.covers/" + std::to_string(++covers_);
    fs::create_directory("/.covers");
    std::ofstream(cover).close();
    expect_done(mount(cover.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0, "cover", path);
  } else if (!is_file) {
    make_room(path);
    std::ofstream(path).close();
  }
  if (!is_ours(path)) {
    ADD_FAILURE() << path << " is the machine's own";
    return;
  }
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  expect_done(!file.fail(), "write", path);
  chmod(path.c_str(), mode);
}

void PrivateRoot::mkdir(const std::string& path) {
  if (!fs::is_directory(path)) {
    make_room(path);
    expect_done(::mkdir(path.c_str(), 0755) == 0, "mkdir", path);
  }
}

void PrivateRoot::bind(const std::string& source, const std::string& path) {
  make_room(path);
  show(fs::canonical(source), path);
}

void PrivateRoot::tmpfs(const std::string& path, const std::string& options) {
  mkdir(path);
  mount_memory(fs::canonical(path), options);
}

void PrivateRoot::remove(const std::string& path) {
  if (is_there(path)) {
    make_room(path);
  }
}

std::string private_network() {
  std::string refusal = enter_namespace(CLONE_NEWNET, "network");
  if (!refusal.empty()) {
    return refusal;
  }
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  std::strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP;
  if (ioctl(fd, SIOCSIFFLAGS, &request) != 0) {
    refusal = std::string("the loopback device cannot be set up here: ") + std::strerror(errno);
  }
  close(fd);
  return refusal;
}

}  // namespace tirn::test
