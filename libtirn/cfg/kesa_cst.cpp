// Implements the items of the kernel side of tirn/cfg.h.
#include <fcntl.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstddef>

#include "libtirn/base/bounds.h"
#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "tirn/cfg.h"
#include "tirn/fileops.h"

using namespace tirn;

namespace {

constexpr char kControlFile[] = "/proc/zut/syscall";

enum Command : uint32_t { kGetItem = 256, kSetItem = 257, kReload = 258 };

// The records of the kernel side. They are little-endian, as are both processors that the library runs on.

struct Argument {
  uint32_t input_length;
  uint32_t output_length;
  uint32_t reserved[2];
  uint64_t input;  // addresses
  uint64_t output;
};
static_assert(sizeof(Argument) == 32 && offsetof(Argument, input) == 16 && offsetof(Argument, output) == 24);

constexpr size_t kValueSize = 257;

struct Input {
  char section[35];
  char item[33];
  char value[kValueSize];
};
static_assert(sizeof(Input) == 325);

struct Output {
  char item[33];
  char value[kValueSize];
};
static_assert(sizeof(Output) == 290);

uint64_t address_of(const void* record) { return reinterpret_cast<uintptr_t>(record); }

int kesa_cst_syscall(Command command, Argument* argument) {
  const NoCancellation guard;
  const Fd file(kesa_open(kControlFile, O_RDWR | O_CLOEXEC, 0));
  if (!file) {
    return TIRN_ERROR_AS("kesa_cst_syscall", "Open file failed, errno %d", errno), kFail;
  }
  const int result = ioctl(file.get(), command, argument);
  // EPERM is expected: callers without the right get it.
  if (result != 0 && errno != EPERM) {
    TIRN_ERROR_AS("kesa_cst_syscall", "Ioctl failed, errno %d", errno);
  }
  return result;
}

bool name_item(Input& input, const char* section, const char* item, const char* function) {
  if (strcpy_s(input.section, sizeof input.section, section) != 0) {
    return TIRN_ERROR_AS(function, "Copy section name fail, %s", section), false;
  }
  if (strcpy_s(input.item, sizeof input.item, item) != 0) {
    return TIRN_ERROR_AS(function, "Copy item name fail, %s", item), false;
  }
  return true;
}

}  // namespace

int32_t kesa_cst_getItem(const char* section, const char* item, char* buffer, uint64_t size) {
  if (section == nullptr || item == nullptr || buffer == nullptr) {
    TIRN_ERROR("Null pointer found, section = %p, itemname = %p, item = %p.", section, item, buffer);
    return kFail;
  }
  Input input{};
  if (!name_item(input, section, item, __func__)) {
    return kFail;
  }
  Output output{};
  Argument argument{sizeof input, sizeof output, {}, address_of(&input), address_of(&output)};
  if (kesa_cst_syscall(kGetItem, &argument) != 0) {
    TIRN_ERROR("Get item failed, section(%s) item name(%s), cmd(%d).", section, item, static_cast<int>(kGetItem));
    return kFail;
  }
  return strncpy_s(buffer, size, output.value, sizeof output.value) == 0 ? kOk : kFail;
}

int32_t kesa_cst_setItem(const char* section, const char* item, const char* value) {
  if (section == nullptr || item == nullptr || value == nullptr) {
    TIRN_ERROR("Null pointer found, section = %p, item name = %p, value = %p.", section, item, value);
    return kFail;
  }
  Input input{};
  if (!name_item(input, section, item, __func__)) {
    return kFail;
  }
  if (strcpy_s(input.value, sizeof input.value, value) != 0) {
    return TIRN_ERROR("Copy item value fail, %s", value), kFail;
  }
  Argument argument{sizeof input, 0, {}, address_of(&input), 0};
  if (kesa_cst_syscall(kSetItem, &argument) != 0) {
    return TIRN_ERROR("Set item failed, section(%s) itemName(%s) itemValue(%s)", section, item, value), kFail;
  }
  return kOk;
}

int32_t kesa_cst_reloadConfig() {
  if (kesa_cst_syscall(kReload, nullptr) != 0) {
    return TIRN_ERROR("Reload config fail"), kFail;
  }
  return kOk;
}
