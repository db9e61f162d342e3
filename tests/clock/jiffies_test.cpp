#include <gtest/gtest.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

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

constexpr char kMap[] = "sysfs/uio3/maps/map0/";

// A device folder of the test's own. The page holds the words 0x1111, 0x2222, ... at 8-byte steps.
struct Device {
  explicit Device(KernelSide& kernel) {
    std::vector<uint64_t> page(512);
    for (uint64_t i = 0; i < 512; ++i) {
      page[i] = 0x1111 * (i + 1);
    }
    folder.write_file("dev/uio3", {reinterpret_cast<const char*>(page.data()), 4096});
    set("addr", "0xfee00000\n");
    set("size", "4096\n");
    set("offset", "0x10\n");
    kernel.jiffies_at(folder.path("sysfs/"), folder.path("dev/"));
  }
  void set(const char* file, const char* text) const { folder.write_file(std::string(kMap) + file, text); }

  TempFolder folder;
};

}  // namespace

TEST(JiffiesDevice, IsFoundReadAndRecorded) {
  KernelSide kernel;
  LogCapture log;
  Device device(kernel);
  EXPECT_EQ(jiffies_usr_main(), 0);
  EXPECT_EQ(kesa_get_jiffies(), 0x3333u);
  EXPECT_EQ(jiffies_uio_get(), &g_jiffies_uio);
  EXPECT_EQ(g_jiffies_uio.addr, 0xfee00000u);
  EXPECT_EQ(g_jiffies_uio.size, 4096u);
  EXPECT_TRUE(g_jiffies_uio.dev_fd > 2 && g_jiffies_uio.offset_fd > 2);
  EXPECT_EQ(mprotect(const_cast<uint64_t*>(g_jiffies_uio.jiffies - 2), 4096, PROT_READ), 0);
  // Once mapped it stays, whatever becomes of the folder.
  kernel.no_jiffies();
  EXPECT_EQ(jiffies_usr_main(), 0);
  EXPECT_EQ(kesa_get_jiffies(), 0x3333u);
  EXPECT_EQ(jiffies_uio_adp_close(), -1);  // the number is nobody's by now
  jiffies_fini();
  EXPECT_TRUE(log.texts().empty()) << log;
}

TEST(JiffiesDevice, CounterLiesWholeAndAlignedInMappingAndFile) {
  constexpr char kBad[] = "Kesa jiffies mmap2, errno=22.";
  const struct {
    const char* file;  // of the map
    const char* text;  // nullptr: the file is missing
    const char* line;
  } kRefused[] = {
      {"addr", nullptr, "Kesa jiffies open addr_fd map failed, errno=2."},
      {"size", nullptr, "Kesa jiffies open size_fd map failed, errno=2."},
      {"offset", nullptr, "Kesa jiffies open map failed, errno=2."},
      {"size", "", kBad},
      {"size", "-4096", "Kesa jiffies mmap2, errno=*."},
      {"size", "7", kBad},
      {"offset", "0x4", kBad},
      {"offset", "0x1000", kBad},
      {"offset", "-8", kBad},
      {"offset", "0x7ffffffffffffff8", kBad},
  };
  KernelSide kernel;
  for (const auto& row : kRefused) {
    LogCapture log;
    const Device device(kernel);
    if (row.text != nullptr) {
      device.set(row.file, row.text);
    } else {
      unlink(device.folder.path(kMap + std::string(row.file)).c_str());
    }
    EXPECT_EQ(jiffies_usr_main(), -1) << row.file << row.text;
    EXPECT_EQ(g_jiffies_uio.jiffies, nullptr);
    EXPECT_TRUE(log.texts().size() == 1 && log.has(HURN_ERROR, "jiffies_uio_adp_open", row.line))
        << row.file << ' ' << row.line << log;
  }
  const struct {
    const char *size, *offset;
    int result;
    uint64_t counter;
  } kBounds[] = {{"4096", "0xff8", 0, 0x1111 * 512},
                 {"0x10000", "", 0, 0x1111},  // beyond the file, but the counter lies in it
                 {"0x10000", "0x1000", -1, 0}};
  for (const auto& row : kBounds) {
    EXPECT_TRUE(run_child([&] {
                  const Device device(kernel);
                  device.set("size", row.size);
                  device.set("offset", row.offset);
                  EXPECT_EQ(jiffies_usr_main(), row.result);
                  return row.result == 0 && kesa_get_jiffies() != row.counter ? 1 : 0;
                }).exited())
        << row.size << ' ' << row.offset;
  }
  LogCapture log;
  const Device device(kernel);
  unlink(device.folder.path("dev/uio3").c_str());
  EXPECT_EQ(jiffies_usr_main(), -1);
  EXPECT_TRUE(log.texts().empty()) << log;
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
  folder.write_file("sysfs/uio" + std::string(200, 'x') + "/maps", "");
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
