#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "support/child_process.h"
#include "support/kernel_side.h"
#include "support/log_capture.h"
#include "support/private_root.h"
#include "support/wait_until.h"
#include "tirn/jiffies.h"

using namespace tirn::test;

namespace {

uint64_t monotonic_milliseconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

int open_descriptors() {
  int count = 0;
  for (int fd = 0; fd < 256; ++fd) {
    count += fcntl(fd, F_GETFD) >= 0;
  }
  return count;
}

// A device folder of the test's own. The page holds the words 0x1111, 0x2222, ... at 8-byte steps.
struct Device {
  explicit Device(KernelSide& kernel, const std::string& child = "uio0") : child_(child) {
    std::string page(4096, '\0');
    for (uint64_t i = 0; i < 512; ++i) {
      const uint64_t word = 0x1111 * (i + 1);
      page.replace(i * 8, 8, reinterpret_cast<const char*>(&word), 8);
    }
    folder.write_file("dev/" + child, page);
    set("addr", "0xfee00000\n");
    set("size", "0x1000\n");
    set("offset", "0x0\n");
    kernel.jiffies_at(folder.path("sysfs/"), folder.path("dev/"));
  }
  void set(const std::string& file, const std::string& text) {
    folder.write_file("sysfs/" + child_ + "/maps/map0/" + file, text);
  }
  void remove(const std::string& path) { unlink(folder.path(path).c_str()); }

  TempFolder folder;
  std::string child_;
};

}  // namespace

TEST(JiffiesDevice, IsFoundReadAndRecorded) {
  KernelSide kernel;
  LogCapture log;
  Device device(kernel, "uio3");
  device.set("size", "4096\n");
  device.set("offset", "0x10\n");
  const int before = open_descriptors();
  EXPECT_EQ(jiffies_usr_main(), 0);
  EXPECT_EQ(kesa_get_jiffies(), 0x3333u);
  EXPECT_EQ(jiffies_uio_get(), &g_jiffies_uio);
  EXPECT_EQ(g_jiffies_uio.addr, 0xfee00000u);
  EXPECT_EQ(g_jiffies_uio.size, 4096u);
  EXPECT_GT(g_jiffies_uio.dev_fd, 2);
  EXPECT_GT(g_jiffies_uio.offset_fd, 2);
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(mprotect(const_cast<uint64_t*>(g_jiffies_uio.jiffies - 2), 4096, PROT_READ), 0);
  // Once mapped it stays, whatever becomes of the folder.
  kernel.no_jiffies();
  EXPECT_EQ(jiffies_usr_main(), 0);
  EXPECT_EQ(kesa_get_jiffies(), 0x3333u);
  EXPECT_EQ(jiffies_uio_adp_close(), -1);  // the number is nobody's by now
  jiffies_fini();
  EXPECT_TRUE(log.texts().empty()) << log;
}

TEST(JiffiesDevice, FailuresAreToldAndLeaveNothingOpen) {
  struct Case {
    const char* name;
    void (*spoil)(Device&);
    const char* text;  // empty: nothing is logged
  };
  const Case cases[] = {
      {"no device file", [](Device& d) { d.remove("dev/uio0"); }, ""},
      {"no addr", [](Device& d) { d.remove("sysfs/uio0/maps/map0/addr"); },
       "Kesa jiffies open addr_fd map failed, errno=2."},
      {"no size", [](Device& d) { d.remove("sysfs/uio0/maps/map0/size"); },
       "Kesa jiffies open size_fd map failed, errno=2."},
      {"no offset", [](Device& d) { d.remove("sysfs/uio0/maps/map0/offset"); },
       "Kesa jiffies open map failed, errno=2."},
      {"size 0", [](Device& d) { d.set("size", "0x0\n"); }, "Kesa jiffies mmap2, errno=22."},
      {"size without digits", [](Device& d) { d.set("size", "page\n"); }, "Kesa jiffies mmap2, errno=22."},
      {"size empty", [](Device& d) { d.set("size", ""); }, "Kesa jiffies mmap2, errno=22."},
      {"size negative", [](Device& d) { d.set("size", "-4096\n"); }, "Kesa jiffies mmap2, errno=*."},
      {"size too small for the counter", [](Device& d) { d.set("size", "7\n"); }, "Kesa jiffies mmap2, errno=22."},
      {"size beyond the file, the counter too",
       [](Device& d) {
         d.set("size", "0x10000\n");
         d.set("offset", "0x2000\n");
       },
       "Kesa jiffies mmap2, errno=22."},
      {"offset not aligned", [](Device& d) { d.set("offset", "0x4\n"); }, "Kesa jiffies mmap2, errno=22."},
      {"offset beyond the size", [](Device& d) { d.set("offset", "0x1000\n"); }, "Kesa jiffies mmap2, errno=22."},
      {"offset half beyond", [](Device& d) { d.set("offset", "0xffc\n"); }, "Kesa jiffies mmap2, errno=22."},
      {"offset negative", [](Device& d) { d.set("offset", "-8\n"); }, "Kesa jiffies mmap2, errno=22."},
      {"offset huge", [](Device& d) { d.set("offset", "0x7fffffffffffffff\n"); }, "Kesa jiffies mmap2, errno=22."},
      {"device file of no byte", [](Device& d) { d.folder.write_file("dev/uio0", ""); },
       "Kesa jiffies mmap2, errno=22."},
  };
  for (const Case& c : cases) {
    KernelSide kernel;
    LogCapture log;
    Device device(kernel);
    c.spoil(device);
    const int before = open_descriptors();
    EXPECT_EQ(jiffies_usr_main(), -1) << c.name;
    EXPECT_EQ(open_descriptors(), before) << c.name;
    EXPECT_EQ(g_jiffies_uio.jiffies, nullptr) << c.name;
    if (*c.text == '\0') {
      EXPECT_TRUE(log.texts().empty()) << c.name << log;
    } else {
      EXPECT_TRUE(log.has(HURN_ERROR, "jiffies_uio_adp_open", c.text)) << c.name << log;
      EXPECT_EQ(log.texts().size(), 1u) << c.name << log;
    }
  }
  // A later call tries again.
  KernelSide kernel;
  Device device(kernel);
  device.set("offset", "");         // an empty offset is 0
  device.set("size", "0x10000\n");  // beyond the file, but the counter lies in it
  EXPECT_EQ(jiffies_usr_main(), 0);
  EXPECT_EQ(kesa_get_jiffies(), 0x1111u);
}

TEST(JiffiesDevice, LastWordOfThePageMayBeTheCounter) {
  KernelSide kernel;
  Device device(kernel);
  device.set("offset", "0xff8\n");
  EXPECT_EQ(jiffies_usr_main(), 0);
  EXPECT_EQ(kesa_get_jiffies(), 0x1111u * 512);
}

TEST(JiffiesDevice, MissingFolderAndMissingChild) {
  KernelSide kernel;
  LogCapture log;
  TempFolder folder;
  kernel.jiffies_at(folder.path("none/"), folder.path("dev/"));
  EXPECT_EQ(jiffies_uio_adp_open(), -1);
  EXPECT_TRUE(log.has(HURN_ERROR, "jiffies_uio_adp_open", "Kesa jiffies get child dir () failed, errno=2.")) << log;
  log.clear();
  folder.write_file("sysfs/ui0/maps", "");
  folder.write_file("sysfs/" + std::string("uio") + std::string(200, 'x') + "/maps", "");
  kernel.jiffies_at(folder.path("sysfs/"), folder.path("dev/"));
  EXPECT_EQ(jiffies_uio_adp_open(), -1);
  EXPECT_EQ(log.count(HURN_ERROR, "strcpy_s failed."), 1u) << log;  // the long name; the walk goes on
  EXPECT_EQ(log.count("Kesa jiffies get child dir () failed, errno=*."), 1u) << log;
}

TEST(JiffiesDevice, TheTruePathIsLookedAtFirst) {
  PrivateRoot root;
  TIRN_NEEDS_PRIVATE_ROOT(root);
  const std::string base = "/sys/devices/platform/jiffies_uio/uio/uio77/maps/map0/";
  root.write_file(base + "addr", "0x1000");
  root.write_file(base + "size", "0x1000");
  root.write_file(base + "offset", "0x8");
  std::string page(4096, '\x01');
  root.write_file("/dev/uio77", page);
  EXPECT_EQ(jiffies_usr_main(), 0);
  EXPECT_EQ(kesa_get_jiffies(), 0x0101010101010101u);
}

TEST(Jiffies, FollowTheClockAndAreSharedByProcesses) {
  const auto reach = [](uint64_t milliseconds) {
    return wait_until([=] { return kesa_get_jiffies() * 4 >= milliseconds; }) ? 0 : 1;
  };
  const uint64_t start = monotonic_milliseconds();
  EXPECT_EQ(reach(start), 0);
  ASSERT_NE(g_jiffies_uio.jiffies, nullptr);
  ChildProcess other([&] { return reach(start + 100); });
  EXPECT_EQ(reach(start + 200), 0);
  const uint64_t jiffies = kesa_get_jiffies();
  EXPECT_LE(jiffies * 4, monotonic_milliseconds());
  EXPECT_TRUE(other.wait().exited());
}

TEST(Jiffies, CycleClockServesWithoutADevice) {
  KernelSide kernel;
  LogCapture log;
  kernel.no_jiffies();
  const uint64_t start = kesa_get_jiffies();
  EXPECT_EQ(g_jiffies_uio.jiffies, nullptr);
  usleep(100000);
  const uint64_t before = kesa_time_getnanosec() / 4000000;
  const uint64_t now = kesa_get_jiffies();
  EXPECT_GE(now - start, 24u);
  EXPECT_LE(before, now);
  EXPECT_LE(now, kesa_time_getnanosec() / 4000000);
  EXPECT_EQ(log.texts().size(), 1u) << log;  // one error line, for the first attempt
  // The clock stands, so the first-use path does not look for the device again; an explicit call does.
  zut_offer_jiffies(1);
  EXPECT_EQ(jiffies_Init(), 0);
  EXPECT_EQ(g_jiffies_uio.jiffies, nullptr);
  EXPECT_EQ(jiffies_usr_main(), 0);
  EXPECT_NE(g_jiffies_uio.jiffies, nullptr);
}
