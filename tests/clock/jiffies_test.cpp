#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
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
  return static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch() / std::chrono::milliseconds(1));
}

// Makes a folder with a device for one test. The page holds the 64-bit words 0x1111, 0x2222 and so on.
struct Device {
  Device(KernelSide& kernel, const char* size, const char* offset) {
    std::vector<uint64_t> page(512);
    for (uint64_t i = 0; i < 512; ++i) {
      page[i] = 0x1111 * (i + 1);
    }
    folder.write_file("dev/uio3", {reinterpret_cast<const char*>(page.data()), 4096});
    folder.write_file("sysfs/uio3/maps/map0/addr", "0xfee00000\n");
    folder.write_file("sysfs/uio3/maps/map0/size", size);
    folder.write_file("sysfs/uio3/maps/map0/offset", offset);
    kernel.jiffies_at(folder.path("sysfs/"), folder.path("dev/"));
  }

  TempFolder folder;
};

}  // namespace

TEST(JiffiesDevice, IsFoundReadAndRecorded) {
  KernelSide kernel;
  LogCapture log;
  const Device device(kernel, "4096\n", "0x10\n");
  EXPECT_EQ(jiffies_usr_main(), 0);
  EXPECT_EQ(kesa_get_jiffies(), 0x3333u);
  EXPECT_EQ(jiffies_uio_get(), &g_jiffies_uio);
  EXPECT_EQ(g_jiffies_uio.addr, 0xfee00000u);
  EXPECT_EQ(g_jiffies_uio.size, 4096u);
  EXPECT_TRUE(g_jiffies_uio.dev_fd > STDERR_FILENO && g_jiffies_uio.offset_fd > STDERR_FILENO);
  EXPECT_EQ(mprotect(const_cast<uint64_t*>(g_jiffies_uio.jiffies - 2), 4096, PROT_READ), 0);
  // Once mapped, the device stays, whatever happens to the folder.
  kernel.no_jiffies();
  EXPECT_EQ(jiffies_usr_main(), 0);
  EXPECT_EQ(kesa_get_jiffies(), 0x3333u);
  EXPECT_EQ(jiffies_uio_adp_close(), -1);  // that descriptor is closed by now
  jiffies_fini();
  EXPECT_TRUE(log.texts().empty()) << log;
}

TEST(JiffiesDevice, CounterLiesWholeAndAlignedInMappingAndFile) {
  constexpr char kBad[] = "Kesa jiffies mmap2, errno=22.";
  const struct {
    const char* missing;
    const char *size, *offset;
    uint64_t counter;  // 0 if the device is refused, with `line` in the log
    const char* line;
  } kRows[] = {{"dev/uio3", "4096", "0", 0, nullptr},
               {"sysfs/uio3/maps/map0/addr", "4096", "0", 0, "Kesa jiffies open addr_fd map failed, errno=2."},
               {"sysfs/uio3/maps/map0/size", "4096", "0", 0, "Kesa jiffies open size_fd map failed, errno=2."},
               {"sysfs/uio3/maps/map0/offset", "4096", "0", 0, "Kesa jiffies open map failed, errno=2."},
               {"", "", "0", 0, kBad},
               {"", "-4096", "0", 0, "Kesa jiffies mmap2, errno=*."},
               {"", "7", "0", 0, kBad},
               {"", "8", "", 0x1111, nullptr},
               {"", "4096", "0x4", 0, kBad},
               {"", "4096", "0xff8", 0x1111 * 512, nullptr},
               {"", "4096", "0x1000", 0, kBad},
               {"", "4096", "-8", 0, kBad},
               {"", "4096", "0x7ffffffffffffff8", 0, kBad},
               {"", "0x10000", "0xff8", 0x1111 * 512, nullptr},  // beyond the file, but the counter lies in it
               {"", "0x10000", "0x1000", 0, kBad}};
  KernelSide kernel;
  for (const auto& row : kRows) {
    const ChildOutcome outcome = run_child([&] {
      LogCapture log;
      const Device device(kernel, row.size, row.offset);
      unlink(device.folder.path(row.missing).c_str());
      EXPECT_EQ(jiffies_usr_main(), row.counter != 0 ? 0 : -1);
      EXPECT_EQ(row.counter,
                row.counter != 0 ? kesa_get_jiffies() : reinterpret_cast<uint64_t>(g_jiffies_uio.jiffies));
      EXPECT_TRUE(row.line == nullptr || log.has(HURN_ERROR, "jiffies_uio_adp_open", row.line)) << log;
      EXPECT_EQ(log.texts().size(), row.line == nullptr ? 0u : 1u) << log;
      return 0;
    });
    EXPECT_TRUE(outcome.exited()) << row.missing << ' ' << row.size << ' ' << row.offset << outcome;
  }
}

// The first folder is missing, the second has no child with a usable name. The walk goes on after the name that is
// too long.
TEST(JiffiesDevice, MissingFolderAndMissingChild) {
  KernelSide kernel;
  LogCapture log;
  TempFolder folder;
  folder.write_file("sysfs/ui0/maps", "");
  folder.write_file("sysfs/uio" + std::string(200, 'x') + "/maps", "");
  for (const char* const sysfs : {"none/", "sysfs/"}) {
    kernel.jiffies_at(folder.path(sysfs), folder.path("dev/"));
    EXPECT_EQ(jiffies_uio_adp_open(), -1);
  }
  EXPECT_EQ(log.count(HURN_ERROR, "Kesa jiffies get child dir () failed, errno=*."), 2u) << log;
  EXPECT_EQ(log.count(HURN_ERROR, "strcpy_s failed."), 1u) << log;
}

TEST(JiffiesDevice, TheTruePathIsLookedAtFirst) {
  PrivateRoot root;
  TIRN_NEEDS_PRIVATE_ROOT(root);
  for (const char* const file : {"addr", "size", "offset"}) {
    root.write_file("/sys/devices/platform/jiffies_uio/uio/uio77/maps/map0/" + std::string(file), "0x1000");
  }
  root.write_file("/dev/uio77", std::string(8192, '\x01'));
  EXPECT_EQ(jiffies_usr_main(), -1) << "the offset is beyond the size";
  root.write_file("/sys/devices/platform/jiffies_uio/uio/uio77/maps/map0/offset", "0x8");
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
  EXPECT_EQ(log.texts().size(), 1u) << log;  // one log line, for the first attempt
  // The cycle clock is set up, so the first-use path does not look for the device again. An explicit call does.
  zut_offer_jiffies(1);
  EXPECT_EQ(jiffies_Init(), 0);
  EXPECT_EQ(g_jiffies_uio.jiffies, nullptr);
  EXPECT_EQ(jiffies_usr_main(), 0);
  EXPECT_NE(g_jiffies_uio.jiffies, nullptr);
}
