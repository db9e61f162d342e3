#include <dirent.h>
#include <pthread.h>
#include <unistd.h>

#include <cstring>

#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "tirn/fileops.h"

namespace {

// The next entry, read into `buffer`; false at the end and on an error.
bool read_entry(DIR* directory, dirent* buffer) {
  dirent* entry = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"  // the buffer holds any name that the call stores
  return readdir_r(directory, buffer, &entry) == 0 && entry != nullptr;
#pragma GCC diagnostic pop
}

struct Walk {
  tirn::Folder directory;
  tirn::TaggedBlock<dirent> entry;
};

void end_walk(void* walk) {
  static_cast<Walk*>(walk)->directory.reset();
  static_cast<Walk*>(walk)->entry.reset();
}

}  // namespace

int kesa_readdir_new(const char* path, kesa_readdir_fn callback, void* ctx) {
  if (path == nullptr) {
    TIRN_ERROR("path is NULL.");
    return tirn::kFail;
  }
  const tirn::NoCancellation guard;  // what is open would stay so
  Walk walk{tirn::Folder(opendir(path)), {}};
  if (walk.directory == nullptr) {
    return tirn::kFail;
  }
  // Without a limit (-1) the record's own room is left, which is that of the longest name of Linux.
  const long size = pathconf(path, _PC_NAME_MAX) + static_cast<long>(sizeof(dirent)) + 1;
  walk.entry = tirn::tagged_block<dirent>(static_cast<uint32_t>(size));
  if (walk.entry == nullptr) {
    return tirn::kFail;
  }
  pthread_cleanup_push(end_walk, &walk);  // a callback may end the thread, which runs no guard
  while (read_entry(walk.directory.get(), walk.entry.get())) {
    const dirent& entry = *walk.entry;
    callback(ctx, entry.d_name, static_cast<int>(std::strlen(entry.d_name)), entry.d_off, entry.d_ino, entry.d_type);
  }
  pthread_cleanup_pop(1);
  return tirn::kOk;
}
