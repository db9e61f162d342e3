// Owners of what must be given back: the function returns where it fails, the guard cleans up.
#ifndef TIRN_BASE_GUARD_H
#define TIRN_BASE_GUARD_H

#include <pthread.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <utility>

#include "tirn/mem.h"

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
      close(fd_);
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

// A block of the tagged heap under this library's id; `tagged_block` fills in the caller for the heap's reports.
struct FreeTagged {
  void operator()(void* block) const { kesa_free(block); }
};
template <typename T>
using TaggedBlock = std::unique_ptr<T, FreeTagged>;

template <typename T>
TaggedBlock<T[]> tagged_block(int32_t count, const char* function = __builtin_FUNCTION(),
                              uint32_t line = __builtin_LINE()) {
  const auto bytes = static_cast<int32_t>(sizeof(T)) * count;
  return TaggedBlock<T[]>(static_cast<T*>(kesa_mallocsubstandard(TIRN_MODULE_ID, bytes, 0, function, line)));
}

}  // namespace tirn

#endif
