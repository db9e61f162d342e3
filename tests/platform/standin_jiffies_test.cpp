// The jiffies device of the kernel side in user space.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/standin.h"

namespace {

namespace fs = std::filesystem;
using namespace standin;

uint64_t jiffies_now() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 250 + static_cast<uint64_t>(now.tv_nsec) / 4'000'000;
}

std::string text_of(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The device as its user finds it: by the files of its map.
const uint64_t* map_counter(const char* sysfs, const char* dev) {
  const std::string map = std::string(sysfs) + "uio0/maps/map0/";
  const long size = strtol(text_of(map + "size").c_str(), nullptr, 0);
  const long offset = strtol(text_of(map + "offset").c_str(), nullptr, 0);
  EXPECT_FALSE(text_of(map + "addr").empty());
  EXPECT_EQ(size, 4096);
  const int device = open((std::string(dev) + "uio0").c_str(), O_RDONLY | O_CLOEXEC);
  void* page = mmap(nullptr, static_cast<size_t>(size), PROT_READ, MAP_PRIVATE, device, 0);
  close(device);
  EXPECT_NE(page, MAP_FAILED);
  return reinterpret_cast<const uint64_t*>(static_cast<const char*>(page) + offset);
}

uint64_t read_counter(const uint64_t* counter) {
  return __atomic_load_n(counter, __ATOMIC_RELAXED);
}

bool advances(const uint64_t* counter, milliseconds limit = std::chrono::seconds(10)) {
  const uint64_t first = read_counter(counter);
  const auto deadline = Clock::now() + limit;
  while (Clock::now() < deadline) {
    if (read_counter(counter) > first + 2) {
      return true;
    }
    std::this_thread::sleep_for(milliseconds(1));
  }
  return false;
}

// A test's own user, so that no other process shares its folder; only root can take one.
class StandinJiffies : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() == 0) {
      become(1'000'000 + static_cast<uid_t>(getpid()));
    }
    root = "/dev/shm/zut-" + std::to_string(geteuid());
  }
  void TearDown() override {
    if (geteuid() >= 1'000'000) {
      fs::remove_all(root);
      become(0);
    }
  }
  static bool become(uid_t user) { return setresuid(user, user, 0) == 0 && prctl(PR_SET_DUMPABLE, 1) == 0; }
  std::string root;
  const char* sysfs = nullptr;
  const char* dev = nullptr;
};

TEST_F(StandinJiffies, TickFourMilliseconds) {
  ASSERT_EQ(zut_jiffies_device(&sysfs, &dev), 0) << strerror(errno);
  const uint64_t* counter = map_counter(sysfs, dev);
  const uint64_t lag = jiffies_now() - read_counter(counter);
  EXPECT_TRUE(lag < 250 || lag > kNone - 2) << "current at once, before the thread has run: " << lag;
  EXPECT_EQ(sysfs, root + "/sysfs/");
  EXPECT_EQ(dev, root + "/dev/");
  struct stat status;
  ASSERT_EQ(stat(root.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
  EXPECT_TRUE(has_thread("zut_jiffies") || advances(counter));

  uint64_t worst = kNone;
  for (int round = 0; round < 50; ++round) {
    std::this_thread::sleep_for(milliseconds(4));
    worst = std::min(worst, jiffies_now() - read_counter(counter));
    const uint64_t seen = read_counter(counter);
    ASSERT_LE(seen, jiffies_now()) << "ahead of the clock";
  }
  EXPECT_LE(worst, 2u) << "never near the clock";

  // A place of a test's own, and none at all.
  const char* own_sysfs = "/tmp/a/";
  zut_set_jiffies_paths(own_sysfs, "/tmp/b/");
  EXPECT_EQ(zut_jiffies_device(&sysfs, &dev), 0);
  EXPECT_EQ(sysfs, own_sysfs);
  zut_offer_jiffies(0);
  EXPECT_EQ(zut_jiffies_device(&sysfs, &dev), -1);
  EXPECT_EQ(errno, ENODEV);
  zut_offer_jiffies(1);
  zut_set_jiffies_paths(nullptr, nullptr);
  EXPECT_EQ(zut_jiffies_device(&sysfs, &dev), 0);
  EXPECT_EQ(sysfs, root + "/sysfs/");
}

TEST_F(StandinJiffies, ARemovedFolderIsMadeAnew) {
  ASSERT_EQ(zut_jiffies_device(&sysfs, &dev), 0) << strerror(errno);
  const uint64_t* old_counter = map_counter(sysfs, dev);
  for (const char* damage : {"", "/dev/uio0", "/sysfs/uio0/maps/map0/size", "/sysfs"}) {
    fs::remove_all(root + damage);
    ASSERT_EQ(zut_jiffies_device(&sysfs, &dev), 0) << damage << ": " << strerror(errno);
    EXPECT_TRUE(advances(map_counter(sysfs, dev))) << damage;
  }
  EXPECT_TRUE(advances(old_counter)) << "who mapped the old device reads on";
}

TEST_F(StandinJiffies, ForeignFoldersAreRefused) {
  if (geteuid() < 1'000'000) {
    GTEST_SKIP() << "the folder of a real user is not put at stake: run as root";
  }
  const std::string elsewhere = root + ".elsewhere";
  fs::create_directory(elsewhere);
  fs::permissions(elsewhere, fs::perms::owner_all);
  fs::create_directory_symlink(elsewhere, root);
  EXPECT_EQ(zut_jiffies_device(&sysfs, &dev), -1) << "a link";
  EXPECT_TRUE(fs::is_empty(elsewhere));
  fs::remove(root);

  fs::rename(elsewhere, root);
  fs::permissions(root, fs::perms::all);
  EXPECT_EQ(zut_jiffies_device(&sysfs, &dev), -1) << "open to others";
  EXPECT_EQ(errno, EPERM);
  fs::remove(root);

  const uid_t user = geteuid();
  ASSERT_EQ(seteuid(0), 0);
  fs::create_directory(root);
  fs::permissions(root, fs::perms::owner_all | fs::perms::others_all);
  ASSERT_EQ(seteuid(user), 0);
  EXPECT_EQ(zut_jiffies_device(&sysfs, &dev), -1) << "another owner's";
  ASSERT_EQ(seteuid(0), 0);
  fs::remove(root);
  ASSERT_EQ(seteuid(user), 0);

  std::ofstream(root) << "a file";
  EXPECT_EQ(zut_jiffies_device(&sysfs, &dev), -1) << "a file";
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_FALSE(has_thread("zut_jiffies"));
}

// Runs `piece` in a child and gives its wait status.
int in_child(const std::function<int()>& piece) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(piece());
  }
  int status = -1;
  waitpid(child, &status, 0);
  return status;
}

TEST_F(StandinJiffies, AFullDeviceFolderIsNoCrash) {
  constexpr int kRefused = 99;
  const int status = in_child([&] {
    const uid_t user = geteuid();
    if (seteuid(0) != 0 || unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, "") != 0 ||
        mount("none", "/dev/shm", "tmpfs", 0, "size=12k,mode=1777") != 0 || seteuid(user) != 0) {
      return kRefused;
    }
    // Three pages are taken by the texts; none is left for the device.
    EXPECT_EQ(zut_jiffies_device(&sysfs, &dev), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_TRUE(fs::is_empty(root + "/dev")) << "half a device is left";
    EXPECT_EQ(seteuid(0) + mount("none", "/dev/shm", "tmpfs", MS_REMOUNT, "size=64k") + seteuid(user), 0);
    EXPECT_EQ(zut_jiffies_device(&sysfs, &dev), 0);
    EXPECT_TRUE(advances(map_counter(sysfs, dev)));
    return testing::Test::HasFailure() ? 1 : 0;
  });
  if (WIFEXITED(status) && WEXITSTATUS(status) == kRefused) {
    GTEST_SKIP() << "no private mount of /dev/shm here";
  }
  EXPECT_EQ(status, 0);
}

TEST_F(StandinJiffies, ManyMakeOneDevice) {
  constexpr int kProcesses = 8;
  for (int round = 0; round < 5; ++round) {
    fs::remove_all(root);
    int results[2];
    ASSERT_EQ(pipe(results), 0);
    std::vector<pid_t> children;
    for (int i = 0; i < kProcesses; ++i) {
      children.push_back(fork());
      if (children.back() == 0) {
        struct stat status {};
        if (zut_jiffies_device(&sysfs, &dev) == 0) {
          stat((root + "/dev/uio0").c_str(), &status);
        }
        _exit(write(results[1], &status.st_ino, sizeof(status.st_ino)) > 0 ? 0 : 1);
      }
    }
    ino_t first = 0;
    for (int i = 0; i < kProcesses; ++i) {
      ino_t device = 0;
      ASSERT_EQ(read(results[0], &device, sizeof(device)), static_cast<ssize_t>(sizeof(device)));
      first = first == 0 ? device : first;
      EXPECT_EQ(device, first);
    }
    EXPECT_NE(first, 0u);
    for (const pid_t child : children) {
      waitpid(child, nullptr, 0);
    }
    close(results[0]);
    close(results[1]);
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
      EXPECT_EQ(entry.path().filename().string().rfind(".new", 0), std::string::npos) << entry.path();
    }
  }
}

// The parent makes the device and forks; it dies, and its child's thread keeps the counter going until that ends.
TEST_F(StandinJiffies, GoOnInAChildWhenTheParentIsGone) {
  int leave[2];
  int told[2];
  ASSERT_EQ(pipe(leave), 0);
  ASSERT_EQ(pipe(told), 0);
  const int status = in_child([&] {
    if (zut_jiffies_device(&sysfs, &dev) != 0) {
      return 1;
    }
    const pid_t child = fork();
    if (child == 0) {
      const char mark = advances(map_counter(sysfs, dev)) ? 'y' : 'n';
      char end;
      close(leave[1]);
      _exit(write(told[1], &mark, 1) == 1 && read(leave[0], &end, 1) == 0 ? 0 : 1);
    }
    return child > 0 ? 0 : 2;
  });
  ASSERT_EQ(status, 0);
  close(told[1]);
  char mark = 0;
  ASSERT_EQ(read(told[0], &mark, 1), 1);
  EXPECT_EQ(mark, 'y');
  const uint64_t* counter = map_counter((root + "/sysfs/").c_str(), (root + "/dev/").c_str());
  EXPECT_TRUE(advances(counter)) << "the child's thread does not run";
  close(leave[1]);
  EXPECT_EQ(read(told[0], &mark, 1), 0) << "the end of the child closes its pipe";
  EXPECT_FALSE(advances(counter, milliseconds(100))) << "something else kept the counter";
}

}  // namespace
