// The test support, held against what it promises.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "support/child_process.h"
#include "support/fake_tools.h"
#include "support/log_capture.h"
#include "support/private_root.h"
#include "support/temp_folder.h"

using namespace tirn::test;
using std::chrono::milliseconds;

namespace {

void write_line(const char* text) { hurn(TIRN_MODULE_ID, HURN_INFO, "file", 7, "function", 0, "%s", text); }

TEST(Support, CaptureSeesLinesOfHandlersAndDyingChildren) {
  hurn_loglevel_set(TIRN_MODULE_ID, HURN_WARNING);
  {
    LogCapture log;
    EXPECT_EQ(hurn_loglevel_get(TIRN_MODULE_ID), static_cast<int>(HURN_DEBUG));
    write_line("before");
    log.clear();
    const ChildOutcome outcome = run_child([] {
      signal(SIGUSR1, [](int) { write_line("in a handler"); });
      raise(SIGUSR1);
      raise(SIGKILL);
      return 0;
    });
    EXPECT_EQ(outcome.signal, SIGKILL) << outcome;
    ASSERT_EQ(log.lines().size(), 1u) << log;
    const LogLine line = log.lines()[0];
    EXPECT_EQ(line.text, "in a handler");
    EXPECT_EQ(line.file, "file");
    EXPECT_EQ(line.line, 7u);
    EXPECT_NE(line.process, getpid());
    EXPECT_TRUE(log.has(HURN_INFO, "function", "in a*")) << log;
  }
  EXPECT_EQ(hurn_loglevel_get(TIRN_MODULE_ID), static_cast<int>(HURN_WARNING));
}

TEST(Support, ChildWithAFailedExpectationIsSeen) {
  const ChildOutcome outcome = run_child([] {
    EXPECT_EQ(1, 2) << "told in the child";
    return 0;
  });
  EXPECT_TRUE(outcome.exited(ChildProcess::kFailedInside)) << outcome;
  EXPECT_NE(outcome.out.find("told in the child"), std::string::npos) << outcome;
}

TEST(Support, FakeToolsRecordTheirCalls) {
  std::string path = getenv("PATH");
  {
    FakeTools tools;
    tools.add("ip", 3, "it's 50%\n");
    tools.add("reboot");
    const TempFolder folder;
    EXPECT_EQ(WEXITSTATUS(system(("ip addr add '1.2.3.4/8 x' >" + folder.path("out")).c_str())), 3);
    EXPECT_EQ(WEXITSTATUS(system("reboot")), 0);
    EXPECT_EQ(read_file(folder.path("out")), "it's 50%\n");
    EXPECT_EQ(tools.calls(), (std::vector<std::string>{"ip addr add 1.2.3.4/8 x", "reboot"}));
    tools.forget_calls();
    EXPECT_TRUE(tools.calls().empty());
  }
  EXPECT_EQ(path, getenv("PATH"));
}

TEST(Support, PrivateRootCoversTheMachine) {
  const TempFolder folder;  // below /tmp, where the new root is put together
  const std::string outside = folder.write_file("outside", "outside");
  struct stat machine_passwd;
  ASSERT_EQ(stat("/etc/passwd", &machine_passwd), 0);
  const ChildOutcome outcome = run_child([&] {
    PrivateRoot root;
    if (!root.refusal().empty()) {
      std::fputs(root.refusal().c_str(), stderr);
      return 77;
    }
    root.write_file("/ZEK/script/tool.sh", "#!/bin/sh\nexit 5\n", 0755);
    EXPECT_EQ(WEXITSTATUS(system("/ZEK/script/tool.sh")), 5);
    root.write_file("/sys/devices/platform/jiffies_uio/uio/uio0/maps/map0/size", "0x1000");
    EXPECT_EQ(read_file("/sys/devices/platform/jiffies_uio/uio/uio0/maps/map0/size"), "0x1000");
    root.tmpfs("/sys/devices/system/cpu");
    root.write_file("/sys/devices/system/cpu/online", "0-3\n");
    EXPECT_NE(access("/sys/devices/system/cpu/cpu0", F_OK), 0);
    EXPECT_EQ(access("/sys/devices/system/node", F_OK), access("/sys/devices/system", F_OK));

    root.write_file("/proc/cpuinfo", "covered");
    EXPECT_EQ(read_file("/proc/cpuinfo"), "covered");
    EXPECT_EQ(access("/proc/self/task", F_OK), 0);
    root.write_file("/proc/cpuinfo", "again");
    EXPECT_EQ(read_file("/proc/cpuinfo"), "again");

    root.write_file("/etc/passwd", "covered");
    EXPECT_EQ(read_file("/etc/passwd"), "covered");
    EXPECT_FALSE(read_file("/etc/group").empty());
    root.write_file("/etc/ssh/sshd_config", "Port 22\n");
    root.symlink("/etc/passwd", "/etc/localtime");
    EXPECT_EQ(read_file("/etc/localtime"), "covered");
    root.remove("/etc/group");
    EXPECT_NE(access("/etc/group", F_OK), 0);
    root.bind(outside, "/etc/group");
    EXPECT_EQ(read_file("/etc/group"), "outside");
    root.write_file("/etc/group", "inside");
    EXPECT_EQ(read_file(outside), "outside");
    root.write_file("/var/run/tirn_test/file", "run");
    EXPECT_EQ(read_file("/run/tirn_test/file"), "run");
    root.remove("/etc");  // must not reach through what it shows
    EXPECT_NE(access("/etc", F_OK), 0);

    root.tmpfs("/dev/shm", "size=64k");
    std::FILE* const file = std::fopen("/dev/shm/large", "w");
    const std::string large(128 * 1024, 'x');
    EXPECT_TRUE(std::fwrite(large.data(), 1, large.size(), file) != large.size() || std::fflush(file) != 0);
    std::fclose(file);
    EXPECT_EQ(access(folder.path().c_str(), F_OK), 0);
    return 0;
  });
  if (outcome.exited(77)) {
    GTEST_SKIP() << outcome.err;
  }
  EXPECT_TRUE(outcome.exited()) << outcome;
  struct stat now;
  ASSERT_EQ(stat("/etc/passwd", &now), 0);
  EXPECT_EQ(now.st_ino, machine_passwd.st_ino);
  EXPECT_EQ(now.st_mtim.tv_sec, machine_passwd.st_mtim.tv_sec);
  EXPECT_EQ(access("/etc/group", F_OK), 0);
  EXPECT_NE(access("/ZEK/script/tool.sh", F_OK), 0);
}

}  // namespace
