// Owners of resources: each gives its resource back at the end of the scope, so a function can return where it fails.
#ifndef TIRN_BASE_GUARD_H
#define TIRN_BASE_GUARD_H

#include <dirent.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <utility>

#include "libtirn/base/cancellation.h"
#include "tirn/mem.h"
#include "tirn/str.h"

namespace tirn {

class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Fd() {
    if (fd_ >= 0) {
      const NoCancellation guard;
      const int error = errno;  // set by what made the function return
      close(fd_);
      errno = error;
    }
  }

  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

class MutexLock {
 public:
  explicit MutexLock(pthread_mutex_t& mutex) : mutex_(mutex), error_(pthread_mutex_lock(&mutex)) {}
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;
  ~MutexLock() {
    if (error_ == 0) {
      pthread_mutex_unlock(&mutex_);
    }
  }

  int error() const { return error_; }

 private:
  pthread_mutex_t& mutex_;
  const int error_;
};

// Closes a stream of kesa_popen_s.
struct ClosePipe {
  void operator()(FILE* stream) const {
    const NoCancellation guard;
    kesa_pclose(stream);
  }
};
using Pipe = std::unique_ptr<FILE, ClosePipe>;

struct CloseFile {
  void operator()(FILE* file) const {
    const NoCancellation guard;
    std::fclose(file);
  }
};
using File = std::unique_ptr<FILE, CloseFile>;

struct CloseFolder {
  void operator()(DIR* folder) const {
    const NoCancellation guard;
    closedir(folder);
  }
};
using Folder = std::unique_ptr<DIR, CloseFolder>;

// Anonymous memory, zeroed. Pages that are never touched cost nothing.
class Mapping {
 public:
  explicit Mapping(size_t size)
      : address_(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)), size_(size) {}
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping() {
    if (*this) {
      munmap(address_, size_);
    }
  }

  void* get() const { return address_; }
  explicit operator bool() const { return address_ != MAP_FAILED; }

 private:
  void* const address_;
  const size_t size_;
};

// Frees a block of the tagged heap. The heap's reports name the function that allocated it.
struct FreeTagged {
  void operator()(void* block) const { kesa_freesub(block, function, line); }
  const char* function = "";
  uint32_t line = 0;
};
template <typename T>
using TaggedBlock = std::unique_ptr<T, FreeTagged>;

// Allocates `size` bytes, at least sizeof(T), under this library's module id. Returns an empty pointer on failure.
template <typename T>
TaggedBlock<T> tagged_block(uint32_t size = sizeof(T), const char* function = __builtin_FUNCTION(),
                            uint32_t line = __builtin_LINE()) {
  void* const block = kesa_mallocsubstandard(TIRN_MODULE_ID, static_cast<int32_t>(size), 0, function, line);
  return TaggedBlock<T>(static_cast<T*>(block), {function, line});
}

}  // namespace tirn

#endif
