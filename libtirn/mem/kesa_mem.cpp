#include "tirn/mem.h"

#include <sys/mman.h>

#include <cstdlib>
#include <new>

#include "libtirn/base/bounds.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"

namespace {

constexpr uint32_t kHead = sizeof(kesa_mem_head);
static_assert(kHead == 16 && offsetof(kesa_mem_head, size) == 4 && offsetof(kesa_mem_head, pid) == 8);

// The word is read before it is known whose it is: in front of plain malloc's memory it belongs to the heap, which the
// sanitizers watch.
__attribute__((no_sanitize("address", "thread"))) bool has_magic(const void* block) {
  return *static_cast<const volatile uint32_t*>(block) == KESA_MEM_MAGIC;
}

}  // namespace

void kesa_mem_init_head(void* block, uint32_t size, uint32_t pid) {
  new (block) kesa_mem_head{KESA_MEM_MAGIC, size, pid, 0};
}

void* kesa_mallocsubproc(uint32_t size, uint32_t* type, uint64_t, uint32_t pid, const char*, uint32_t) {
  const uint32_t whole = size + kHead;
  if (whole < kHead) {  // the sum of 32 bits has wrapped: no block could hold the record
    return nullptr;
  }
  void* const block = std::malloc(whole);
  if (block == nullptr) {
    return nullptr;
  }
  kesa_mem_init_head(block, size, pid);
  kesa_mem_stat_add(pid, size);
  if (type != nullptr) {
    *type = KESA_MEM_TYPE_STANDARD;
  }
  return static_cast<char*>(block) + kHead;
}

void kesa_freesubproc(void* block, uint64_t) { std::free(block); }

void* kesa_mallocsubstandard(uint32_t pid, int32_t size, uint64_t reserved, const char* function, uint32_t line) {
  if (size == 0) {
    return nullptr;
  }
  uint32_t type = KESA_MEM_TYPE_STANDARD;
  void* const bytes = kesa_mallocsubproc(static_cast<uint32_t>(size), &type, reserved, pid, function, line);
  if (bytes == nullptr) {
    TIRN_ERROR("Malloc memory fails. PID: (%d), size: (%d), type: (%d).", static_cast<int>(pid), size,
               static_cast<int>(type));
  }
  return bytes;
}

void kesa_freesub(void* pointer, const char* function, uint32_t line) {
  if (pointer == nullptr) {
    TIRN_LIMITED(tirn::kError, tirn::kError, tirn::kError, "ptr  is null, function(%s) line(%u)", function, line);
    return;
  }
  void* const block = static_cast<char*>(pointer) - kHead;
  if (has_magic(block)) {
    const auto* const head = static_cast<const kesa_mem_head*>(block);
    kesa_mem_stat_sub(head->pid, head->size);
    kesa_freesubproc(block, KESA_MEM_TYPE_STANDARD);
    return;
  }
  TIRN_ERROR("mem magic is wrong, ptr(%p), function(%s) line(%u)", pointer, function, line);
  kesa_freesubproc(pointer, KESA_MEM_TYPE_STANDARD);  // memory of plain malloc
}

void* kesa_memset(void* destination, int32_t value, uint32_t count) {
  memset_s(destination, count, value, count);
  return destination;
}

int kesa_mprotect(void* address, uint32_t length, int protection) { return mprotect(address, length, protection); }

void* kesa_mmap(void* address, size_t length, int protection, int flags, int fd, off_t offset) {
  return mmap(address, length, protection, flags, fd, offset);
}

int kesa_munmap(void* address, size_t length) { return address == nullptr ? tirn::kFail : munmap(address, length); }
