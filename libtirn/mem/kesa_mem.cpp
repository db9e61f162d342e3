// Implements the tagged allocation and the page calls of tirn/mem.h.
#include "tirn/mem.h"

#include <sys/mman.h>

#include <cstdlib>
#include <new>

#include "libtirn/base/bounds.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/mem/mem_counters.h"

using namespace tirn;

namespace {

constexpr uint32_t kHead = sizeof(kesa_mem_head);
static_assert(kHead == 16 && offsetof(kesa_mem_head, size) == 4 && offsetof(kesa_mem_head, pid) == 8);

// Read without sanitizer checks: before a block of plain malloc, this word belongs to the heap, and the kind of block
// is not known until the word is read.
__attribute__((no_sanitize("address", "thread"))) bool has_magic(const void* block) {
  return *static_cast<const volatile uint32_t*>(block) == KESA_MEM_MAGIC;
}

// The next two functions are part of every allocation, so they are inlined. Rare cases are in functions of their own.

inline void write_head(void* block, uint32_t size, uint32_t pid) {
  new (block) kesa_mem_head{KESA_MEM_MAGIC, size, pid, 0};
}

inline void* allocate(uint32_t size, uint32_t pid) {
  const uint32_t whole = size + kHead;
  if (whole < kHead) [[unlikely]] {  // the 32-bit sum has wrapped: no room for the record
    return nullptr;
  }
  void* const block = std::malloc(whole);
  if (block == nullptr) [[unlikely]] {
    return nullptr;
  }
  write_head(block, size, pid);
  count_bytes(pid, size);
  return static_cast<char*>(block) + kHead;
}

[[gnu::cold, gnu::noinline]] void report_failure(uint32_t pid, int32_t size) {
  TIRN_ERROR_AS("kesa_mallocsubstandard", "Malloc memory fails. PID: (%d), size: (%d), type: (%d).",
                static_cast<int>(pid), size, static_cast<int>(KESA_MEM_TYPE_STANDARD));
}

[[gnu::cold, gnu::noinline]] void report_null(const char* function, uint32_t line) {
  TIRN_LIMITED_WITH(kError, kError, "kesa_freesub", kError, "ptr  is null, function(%s) line(%u)", function, line);
}

// Logs and frees a block without a record, which may come from plain malloc.
[[gnu::cold, gnu::noinline]] void free_foreign(void* pointer, const char* function, uint32_t line) {
  TIRN_ERROR_AS("kesa_freesub", "mem magic is wrong, ptr(%p), function(%s) line(%u)", pointer, function, line);
  std::free(pointer);
}

}  // namespace

void kesa_mem_init_head(void* block, uint32_t size, uint32_t pid) { write_head(block, size, pid); }

void* kesa_mallocsubproc(uint32_t size, uint32_t* type, uint64_t, uint32_t pid, const char*, uint32_t) {
  void* const bytes = allocate(size, pid);
  if (bytes != nullptr && type != nullptr) {
    *type = KESA_MEM_TYPE_STANDARD;
  }
  return bytes;
}

void kesa_freesubproc(void* block, uint64_t) { std::free(block); }

void* kesa_mallocsubstandard(uint32_t pid, int32_t size, uint64_t, const char*, uint32_t) {
  if (size == 0) [[unlikely]] {
    return nullptr;
  }
  void* const bytes = allocate(static_cast<uint32_t>(size), pid);
  if (bytes == nullptr) [[unlikely]] {
    report_failure(pid, size);
  }
  return bytes;
}

void kesa_freesub(void* pointer, const char* function, uint32_t line) {
  if (pointer == nullptr) [[unlikely]] {
    report_null(function, line);
    return;
  }
  void* const block = static_cast<char*>(pointer) - kHead;
  if (!has_magic(block)) [[unlikely]] {
    free_foreign(pointer, function, line);
    return;
  }
  const auto* const head = static_cast<const kesa_mem_head*>(block);
  count_bytes(head->pid, -int64_t{head->size});
  std::free(block);
}

void* kesa_memset(void* destination, int32_t value, uint32_t count) {
  memset_s(destination, count, value, count);
  return destination;
}

int kesa_mprotect(void* address, uint32_t length, int protection) { return mprotect(address, length, protection); }

void* kesa_mmap(void* address, size_t length, int protection, int flags, int fd, off_t offset) {
  return mmap(address, length, protection, flags, fd, offset);
}

int kesa_munmap(void* address, size_t length) { return address == nullptr ? kFail : munmap(address, length); }
