#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstring>

#include "support/imports.h"
#include "support/log_capture.h"
#include "tirn/cfg.h"

using namespace tirn::test;

namespace {

// The control file: what the library asked of it, and what it answers.
struct ControlFile {
  int opened = 0;
  unsigned long request = 0;
  uint32_t lengths[4]{};
  uint64_t records[2]{};
  std::string input, value;
  int error = 0;  // ENOENT: there is no such file
};
ControlFile control;

int open_control(const char* path, int flags, ...) {
  EXPECT_STREQ(path, "/proc/zut/syscall");
  EXPECT_EQ(flags, O_RDWR | O_CLOEXEC);
  ++control.opened;
  return open(control.error == ENOENT ? "/nowhere/a" : "/dev/null", O_RDWR);
}

int answer(int, unsigned long request, const char* argument) {
  control.request = request;
  if (argument != nullptr) {
    std::memcpy(control.lengths, argument, 16);
    std::memcpy(control.records, argument + 16, 16);
    control.input.assign(reinterpret_cast<const char*>(control.records[0]), control.lengths[0]);
    control.value.copy(reinterpret_cast<char*>(control.records[1]) + 33, control.records[1] == 0 ? 0 : 257);
  }
  errno = control.error;
  return control.error == 0 ? 0 : -1;
}

class KernelItems : public testing::Test {
 protected:
  KernelItems() {
    control = {};
    imports_.redirect("open", reinterpret_cast<void*>(open_control));
    imports_.redirect("ioctl", reinterpret_cast<void*>(answer));
  }
  Imports imports_{Object::library};
  LogCapture log_;
};

std::string padded(std::string text, size_t size) { return text.append(size - text.size(), '\0'); }

}  // namespace

TEST_F(KernelItems, RecordsOnTheWire) {
  const std::string section(34, 's'), name(32, 'n'), longest(256, 'v');
  control.value = longest + '\0';
  char value[300];
  EXPECT_EQ(kesa_cst_getItem(section.c_str(), name.c_str(), value, 257), 0);
  EXPECT_EQ(value, longest);
  EXPECT_EQ(std::pair(control.request, control.lengths[1]), std::pair(256ul, 290u));
  EXPECT_EQ(control.input, padded(section, 35) + padded(name, 33) + padded("", 257));
  EXPECT_EQ(kesa_cst_getItem("s", "n", value, 256), -1);  // a byte too small
  EXPECT_STREQ(value, "");
  control.value = std::string(257, 'v');  // without an end
  EXPECT_EQ(kesa_cst_getItem("s", "n", value, 258), 0);
  EXPECT_EQ(value, control.value);
  EXPECT_EQ(kesa_cst_setItem("s", "n", longest.c_str()), 0);
  EXPECT_EQ(std::pair(control.request, control.lengths[1] + control.records[1]), std::pair(257ul, 0ul));
  EXPECT_EQ(control.input, padded("s", 35) + padded("n", 33) + padded(longest, 257));
  EXPECT_EQ(kesa_cst_reloadConfig(), 0);
  EXPECT_EQ(control.request, 258u);
  EXPECT_TRUE(log_.texts().empty()) << log_;
}

TEST_F(KernelItems, RefusedAndFailing) {
  char value[300];
  const auto expect = [this](int result, const std::string& text) {
    EXPECT_EQ(result, -1) << text;
    EXPECT_EQ(log_.count(HURN_ERROR, text), 1u) << text << log_;
  };
  expect(kesa_cst_getItem(std::string(35, 's').c_str(), "n", value, 300), "Copy section name fail, s*");
  expect(kesa_cst_setItem("s", std::string(33, 'n').c_str(), "v"), "Copy item name fail, n*");
  expect(kesa_cst_setItem("s", "n", std::string(257, 'v').c_str()), "Copy item value fail, v*");
  EXPECT_EQ(control.opened, 0);
  const std::pair<int, const char*> errors[] = {{EIO, "Ioctl *, errno 5"}, {EPERM, ""}, {ENOENT, "Open *, errno 2"}};
  for (const auto& [error, told] : errors) {
    log_.clear();
    control.error = error;
    expect(kesa_cst_getItem("s", "n", value, 300), "Get item failed, section(s) item name(n), cmd(256).");
    expect(kesa_cst_setItem("s", "n", "v"), "Set item failed, section(s) itemName(n) itemValue(v)");
    expect(kesa_cst_reloadConfig(), "Reload config fail");
    EXPECT_EQ(log_.count(told), error == EPERM ? 0u : 3u) << log_;
  }
}
