#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdarg>
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
  uint32_t lengths[2]{};
  uint64_t records[2]{};
  std::string input;
  int result = 0;
  int error = 0;
  std::string value;
};
ControlFile control;

int open_control(const char* path, int, ...) {
  EXPECT_STREQ(path, "/proc/zut/syscall");
  ++control.opened;
  return open("/dev/null", O_RDWR);
}

int answer(int, unsigned long request, ...) {
  va_list arguments;
  va_start(arguments, request);
  const char* const argument = va_arg(arguments, const char*);
  va_end(arguments);
  control.request = request;
  if (argument != nullptr) {
    std::memcpy(control.lengths, argument, 8);
    std::memcpy(control.records, argument + 16, 16);
    control.input.assign(reinterpret_cast<const char*>(control.records[0]), control.lengths[0]);
    if (control.records[1] != 0) {
      std::memcpy(reinterpret_cast<char*>(control.records[1]) + 33, control.value.data(), control.value.size());
    }
  }
  errno = control.error;
  return control.result;
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
  EXPECT_STREQ(value, longest.c_str());
  EXPECT_EQ(control.request, 256u);
  EXPECT_EQ(control.lengths[1], 290u);
  EXPECT_EQ(control.input, padded(section, 35) + padded(name, 33) + padded("", 257));
  EXPECT_EQ(kesa_cst_getItem("s", "n", value, 256), -1);  // a byte too small
  control.value = std::string(257, 'v');                  // without an end
  EXPECT_EQ(kesa_cst_getItem("s", "n", value, sizeof value), 0);
  EXPECT_EQ(std::strlen(value), 257u);
  EXPECT_EQ(kesa_cst_setItem("s", "n", longest.c_str()), 0);
  EXPECT_EQ(control.request, 257u);
  EXPECT_EQ(control.lengths[1], 0u);
  EXPECT_EQ(control.records[1], 0u);
  EXPECT_EQ(control.input, padded("s", 35) + padded("n", 33) + padded(longest, 257));
  EXPECT_EQ(kesa_cst_reloadConfig(), 0);
  EXPECT_EQ(control.request, 258u);
  EXPECT_TRUE(log_.texts().empty()) << log_;
}

TEST_F(KernelItems, RefusedAndFailing) {
  char value[300];
  const std::string long_section(35, 's'), long_name(33, 'n'), long_value(257, 'v');
  EXPECT_EQ(kesa_cst_getItem(long_section.c_str(), "n", value, sizeof value), -1);
  EXPECT_TRUE(log_.has(HURN_ERROR, "kesa_cst_getItem", "Copy section name fail, " + long_section)) << log_;
  EXPECT_EQ(kesa_cst_setItem("s", long_name.c_str(), "v"), -1);
  EXPECT_TRUE(log_.has(HURN_ERROR, "kesa_cst_setItem", "Copy item name fail, " + long_name)) << log_;
  EXPECT_EQ(kesa_cst_setItem("s", "n", long_value.c_str()), -1);
  EXPECT_TRUE(log_.has(HURN_ERROR, "kesa_cst_setItem", "Copy item value fail, " + long_value)) << log_;
  EXPECT_EQ(kesa_cst_getItem("s", nullptr, value, sizeof value), -1);
  EXPECT_EQ(control.opened, 0);
  for (const int error : {EIO, EPERM}) {
    log_.clear();
    control.result = -1;
    control.error = error;
    EXPECT_EQ(kesa_cst_getItem("s", "n", value, sizeof value), -1);
    EXPECT_EQ(kesa_cst_setItem("s", "n", "v"), -1);
    EXPECT_EQ(kesa_cst_reloadConfig(), -1);
    EXPECT_TRUE(log_.has(HURN_ERROR, "kesa_cst_getItem", "Get item failed, section(s) item name(n), cmd(256)."))
        << log_;
    EXPECT_TRUE(log_.has(HURN_ERROR, "kesa_cst_setItem", "Set item failed, section(s) itemName(n) itemValue(v)"))
        << log_;
    EXPECT_TRUE(log_.has(HURN_ERROR, "kesa_cst_reloadConfig", "Reload config fail")) << log_;
    EXPECT_EQ(log_.count("Ioctl failed, errno 5"), error == EIO ? 3u : 0u) << log_;
    EXPECT_EQ(log_.texts().size(), error == EIO ? 6u : 3u) << log_;
  }
  imports_.redirect("open", reinterpret_cast<void*>(open));  // and there is no such file here
  EXPECT_EQ(kesa_cst_reloadConfig(), -1);
  EXPECT_TRUE(log_.has(HURN_ERROR, "kesa_cst_syscall", "Open file failed, errno 2")) << log_;
}
