// Implements the commands on files of tirn/fileops.h.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include "libtirn/base/command.h"
#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"
#include "tirn/fileops.h"
#include "tirn/str.h"

using namespace tirn;

namespace {

constexpr uint32_t kLineSize = 4096;

struct FileCommand {
  const char* function;
  const char* line;
  const char* allowed;    // special characters of the command line itself
  bool is_path_screened;  // the path is checked by itself, as `allowed` lets these characters pass in it
  const char* missing;
  const char* too_long;
  const char* no_memory;
};

enum Command { kRemove, kCopy, kMove, kTouch, kMakeDirectory, kUnpack, kPack };

// The log texts differ from command to command, and they stay so.
constexpr FileCommand kCommands[] = {
    {"kesa_cmd_rm", "rm -rf %s", nullptr, false, "Param is NULL.", "File path too long pSrcFile = %s",
     "allocCmd is NULL"},
    {"kesa_cmd_cp", "cp -af %s %s", nullptr, false, "SrcFile or DestFile is NULL.",
     "File Path is too Long, pSrcFile: (%s), pDestFile: (%s)", "AllocCmd is NULL"},
    {"kesa_cmd_mv", "mv %s %s", nullptr, false, "Param is NULL.", "File path too long pSrcFile = %s, pDestFile = %s",
     "allocCmd is NULL"},
    {"kesa_cmd_touch", "touch %s", nullptr, false, "File is NULL.", "File path:(%s) is too long.",
     "AllocCmd is NULL"},
    {"kesa_cmd_mkdir", "mkdir -p %s &>/dev/null", "&>", true, "Param is NULL.", "File path too long pFile = %s",
     "allocCmd is NULL"},
    {"kesa_cmd_tar", "tar -xzf %s -C %s", nullptr, false, "Param is NULL.",
     "File path too long pSrcFile = %s,pDir = %s", "allocCmd is NULL"},
    {"kesa_cmd_tar", "tar -czf %s %s", nullptr, false, "Param is NULL.", "File path too long pSrcFile = %s,pDir = %s",
     "allocCmd is NULL"},
};

struct Free {
  void operator()(void* block) const { std::free(block); }
};

bool is_too_long(const char* path) { return strnlen(path, KESA_FILE_PATH_SIZE) == KESA_FILE_PATH_SIZE; }

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // formats of the table; those for one path ignore the second
int run(Command which, const char* first, const char* second = "") {
  const FileCommand& command = kCommands[which];
  if (first == nullptr || second == nullptr) {
    return TIRN_ERROR_AS(command.function, "%s", command.missing), -EINVAL;
  }
  if (is_too_long(first) || is_too_long(second)) {
    return TIRN_ERROR_AS(command.function, command.too_long, first, second), -ENAMETOOLONG;
  }
  if (command.is_path_screened && isDangerousCmd(first, nullptr) != 0) {
    return TIRN_ERROR_AS(command.function, "Param error: pFile(%s) is dangerous.", first), -EINVAL;
  }
  const NoCancellation guard;  // a cancellation would leave the command line allocated
  const std::unique_ptr<char, Free> line(static_cast<char*>(std::calloc(1, kLineSize)));
  if (line == nullptr) {
    return TIRN_ERROR_AS(command.function, "%s", command.no_memory), -ENOMEM;
  }
  const std::optional<int> status = run_command(line.get(), kLineSize, command.allowed, command.line, first, second);
  if (!status) {
    TIRN_LIMITED_AS(command.function, kError, "sprintf_s secure function failed, destMax<%lu>.",
                    static_cast<unsigned long>(kLineSize));
    return -EINVAL;
  }
  if (*status != 0) {
    TIRN_ERROR_AS(command.function, "Execute cmd(%s) Fail(%d)", line.get(), *status);
  }
  return *status;
}
#pragma GCC diagnostic pop

}  // namespace

int kesa_cmd_rm(const char* file) { return run(kRemove, file); }

int kesa_cmd_cp(const char* src, const char* dst) { return run(kCopy, src, dst); }

int kesa_cmd_mv(const char* src, const char* dst) { return run(kMove, src, dst); }

int kesa_cmd_touch(const char* file) { return run(kTouch, file); }

int kesa_cmd_mkdir(const char* file) { return run(kMakeDirectory, file); }

int kesa_cmd_tar(const char* file, const char* dir_or_src, int extract) {
  if (extract != 0) {
    return run(kUnpack, file, dir_or_src == nullptr ? "" : dir_or_src);
  }
  return run(kPack, file, dir_or_src);
}
