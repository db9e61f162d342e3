// Implements the walk through a folder of tirn/fileops.h.
#include <dirent.h>
#include <unistd.h>

#include <cstring>

#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "tirn/fileops.h"

using namespace tirn;

namespace {

// Reads the next entry into `buffer`. Returns false at the end and on an error.
bool read_entry(DIR* directory, dirent* buffer) {
  dirent* entry = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"  // the buffer has room for any name that the call stores
  return readdir_r(directory, buffer, &entry) == 0 && entry != nullptr;
#pragma GCC diagnostic pop
}

}  // namespace

int kesa_readdir_new(const char* path, kesa_readdir_fn callback, void* ctx) {
  if (path == nullptr) {
    return TIRN_ERROR("path is NULL."), kFail;
  }
  const NoCancellation guard;  // a cancellation would leave the folder open
  Folder directory(opendir(path));
  if (directory == nullptr) {
    return kFail;
  }
  // If there is no limit (-1), this is the size of the record itself, which has room for the longest name on Linux.
  const long size = pathconf(path, _PC_NAME_MAX) + static_cast<long>(sizeof(dirent)) + 1;
  TaggedBlock<dirent> entry = tagged_block<dirent>(static_cast<uint32_t>(size));
  if (entry == nullptr) {
    return kFail;
  }
  const auto walk = [&] {
    while (read_entry(directory.get(), entry.get())) {
      callback(ctx, entry->d_name, static_cast<int>(std::strlen(entry->d_name)), entry->d_off, entry->d_ino,
               entry->d_type);
    }
  };
  run_with_cleanup(walk, [&] { entry.reset(), directory.reset(); });
  return kOk;
}
