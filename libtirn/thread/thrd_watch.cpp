// Keeps a number that the processes of one user on a node share, in a shared-memory object.
#include <atomic>

#include "libtirn/base/once.h"
#include "libtirn/base/result.h"
#include "tirn/shm.h"
#include "tirn/thread.h"

using namespace tirn;

namespace {

constexpr uint32_t kMagic = 0xEADD7741;

// The layout of the shared object. A new one is all zeros.
struct WatchCell {
  std::atomic<uint32_t> magic;
  std::atomic<uint32_t> value;
};
static_assert(sizeof(WatchCell) == 8 && std::atomic<uint32_t>::is_always_lock_free);

constinit Once g_cell_made;
constinit std::atomic<WatchCell*> g_cell{nullptr};

WatchCell* cell() {
  g_cell_made.run([] {
    g_cell.store(static_cast<WatchCell*>(kesa_shm_create("kesaThreadWatch", sizeof(WatchCell))),
                 std::memory_order_relaxed);
    return g_cell.load(std::memory_order_relaxed) != nullptr ? kOk : kFail;
  });
  return g_cell.load(std::memory_order_relaxed);
}

}  // namespace

int kesa_thread_watch_add(uint32_t value) {
  WatchCell* const shared = cell();
  if (shared == nullptr) {
    return kFail;
  }
  shared->value.store(value, std::memory_order_relaxed);
  // Pairs with the acquire in kesa_thread_watch_get: a process that sees the magic finds a value.
  shared->magic.store(kMagic, std::memory_order_release);
  return kOk;
}

int kesa_thread_watch_del() {
  kesa_thread_watch_add(0);
  return kOk;
}

uint32_t kesa_thread_watch_get() {
  const WatchCell* const shared = cell();
  return shared != nullptr && shared->magic.load(std::memory_order_acquire) == kMagic
             ? shared->value.load(std::memory_order_relaxed)
             : 0;
}
