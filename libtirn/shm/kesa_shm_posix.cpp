// Implements the shared memory of tirn/shm.h.
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "tirn/shm.h"

using namespace tirn;

namespace {

int protection_of(int32_t flags) {
  switch (flags & O_ACCMODE) {
    case O_RDONLY:
      return PROT_READ;
    case O_WRONLY:
      return PROT_WRITE;
    case O_RDWR:
      return PROT_READ | PROT_WRITE;
    default:
      return TIRN_ERROR_AS("kesa_shm_create_ext", "Oflag open failed, oflag<%d>.", flags), PROT_NONE;
  }
}

}  // namespace

void* kesa_shm_create_ext(const char* name, int32_t flags, uint32_t mode, uint32_t size) {
  if (name == nullptr) {
    return nullptr;
  }
  const NoCancellation guard;  // a cancellation would leave the object open
  Fd object(shm_open(name, flags, mode));
  if (!object) {
    return nullptr;
  }
  // A failure is ignored: an object that is opened for reading cannot be resized, and need not be.
  [[maybe_unused]] const int resized = ftruncate(object.get(), size);
  // Allocate the pages now, so that a full /dev/shm fails here and not as a fault at a later store.
  const int result = fallocate(object.get(), 0, 0, size);
  if (result != 0 && errno == ENOSPC) {
    return TIRN_INFO("Fallocate shm fail, ret<%d> errno<%d>.", result, errno), nullptr;
  }
  void* const mapping = mmap(nullptr, size, protection_of(flags), MAP_SHARED, object.get(), 0);
  object = Fd();
  if (mapping == MAP_FAILED) {
    return TIRN_INFO("Mmap shm mem fail, errno<%d>.", errno), nullptr;
  }
  return mapping;
}

void* kesa_shm_create(const char* name, uint32_t size) {
  const NoCancellation guard;
  void* const mapping = kesa_shm_create_ext(name, O_RDWR | O_CREAT, 0600, size);
  if (mapping == nullptr && errno != EEXIST) {
    TIRN_INFO("Open shm fail, errno<%d>.", errno);
  }
  return mapping;
}

int kesa_shm_destroy(const char* name) {
  const int result = shm_unlink(name);
  if (result != 0) {
    return TIRN_INFO("Destroy shm fail, ret<%d> errno<%d>.", result, errno), kFail;
  }
  return kOk;
}

int kesa_shmget_ex(int32_t key, size_t size, int flags) { return shmget(key, size, flags); }

int kesa_shmget(int32_t key, size_t size) { return kesa_shmget_ex(key, size, IPC_CREAT | 0600); }

void* kesa_shmat(int id) {
  void* const address = shmat(id, nullptr, 0);
  return address == reinterpret_cast<void*>(-1) ? nullptr : address;
}

int kesa_shmdel(int id) { return shmctl(id, IPC_RMID, nullptr); }
