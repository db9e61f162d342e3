// Implements the registered files of tirn/cfg.h.
#include "tirn/cfg.h"

#include <atomic>
#include <cstring>
#include <optional>
#include <utility>

#include "libtirn/base/bounds.h"
#include "libtirn/base/fork.h"
#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/base/rwlock_guard.h"
#include "libtirn/cfg/cfg_tree.h"

using namespace tirn;
using namespace tirn::cfg;

uint64_t g_stCfgRwlock = 0;

namespace {

// The registered files, newest first.
class Files {
 public:
  // May also be called without the lock of the list.
  bool is_empty() const { return count_.load(std::memory_order_relaxed) == 0; }

  NodesOf<kesa_cfg_file_node> all() { return NodesOf<kesa_cfg_file_node>(head_); }

  kesa_cfg_file_node* find(const char* name) {
    for (kesa_cfg_file_node& file : all()) {
      if (std::strcmp(file.fileName, name) == 0) {
        return &file;
      }
    }
    return nullptr;
  }

  void add(kesa_cfg_file_node* file) {
    list::push_front(&head_, &file->link);
    count_.fetch_add(1, std::memory_order_relaxed);
  }

  void remove(kesa_cfg_file_node* file) {
    list::remove(&file->link);
    count_.fetch_sub(1, std::memory_order_relaxed);
  }

 private:
  kesa_list_head head_{&head_, &head_};
  std::atomic<uint32_t> count_{0};
};
constinit Files g_files;

// Holds the lock of the list or of a file in it. Each thread keeps a list of its holds for a fork.
class StoreHold {
 public:
  StoreHold(uint64_t& rwlock, RwlockHold::Kind kind) : rwlock_(rwlock), kind_(kind), hold_(followed(rwlock), kind) {
    next_ = t_first;
    t_first = this;
  }
  StoreHold(const StoreHold&) = delete;
  StoreHold& operator=(const StoreHold&) = delete;
  ~StoreHold() { release(); }

  void release() {
    StoreHold** at = &t_first;
    while (*at != nullptr && *at != this) {
      at = &(*at)->next_;
    }
    if (*at == this) {
      *at = next_;
    }
    hold_.release();
  }

 private:
  static uint64_t& followed(uint64_t& rwlock) {
    g_fork_steps.follow();
    return rwlock;
  }

  // Takes the lock of the list before a fork, so that no thread is in the middle of a change to the list. A thread
  // that forks while it holds that lock (a log callback may do so) need not take it. The wait ends after about a
  // second: the program may hold the exported lock itself, and the child then still holds it.
  static void lock_list(ForkSteps&) {
    for (const StoreHold* hold = t_first; hold != nullptr; hold = hold->next_) {
      if (&hold->rwlock_ == &g_stCfgRwlock) {
        return;
      }
    }
    g_is_list_locked = take_before_fork([] {
      uint64_t free = 0;
      return std::atomic_ref(g_stCfgRwlock).compare_exchange_strong(free, KESA_RWLOCK_WRITER);
    });
  }

  static void unlock_list(ForkSteps&) {
    if (std::exchange(g_is_list_locked, false)) {
      kesa_rwlock_write_unlock(&g_stCfgRwlock);
    }
  }

  // Runs in the child, where only the forking thread is left: opens all locks, then takes that thread's holds again.
  // The trees need no repair: under a file's lock alone, only values are replaced, by one store each.
  static void renew(ForkSteps& self) {
    unlock_list(self);
    for (kesa_cfg_file_node& file : g_files.all()) {
      file.rwlock = 0;
    }
    for (const StoreHold* hold = t_first; hold != nullptr; hold = hold->next_) {
      hold->rwlock_ = 0;
    }
    for (const StoreHold* hold = t_first; hold != nullptr; hold = hold->next_) {
      const bool is_reader = hold->kind_ == RwlockHold::kRead || hold->kind_ == RwlockHold::kReadMayblock;
      hold->rwlock_ += is_reader ? 1 : KESA_RWLOCK_WRITER;
    }
  }

  static ForkSteps g_fork_steps;
  static bool g_is_list_locked;  // by lock_list
  static __thread StoreHold* t_first;

  uint64_t& rwlock_;
  const RwlockHold::Kind kind_;
  RwlockHold hold_;
  StoreHold* next_;
};
constinit ForkSteps StoreHold::g_fork_steps(renew, lock_list, unlock_list);
bool StoreHold::g_is_list_locked = false;
__thread StoreHold* StoreHold::t_first = nullptr;

// Frees a file that was removed from the list, after waiting for the threads that still hold its lock.
void destroy_file(kesa_cfg_file_node* file) {
  {
    const StoreHold hold(file->rwlock, RwlockHold::kWriteMayblock);
    kesa_cfg_destory_section(file);
  }
  kesa_free(file);
}

// Allocates the memory for a new value. A failure is logged under the name of `function`.
TaggedBlock<char> allocate_value(uint32_t size, const char* function) {
  TaggedBlock<char> value = tagged_block<char>(size, function);
  if (!value) {
    TIRN_ERROR_AS(function, "Alloc needed item memory fail, size(%u).", size);
  }
  return value;
}

uint32_t size_of(const char* text) { return static_cast<uint32_t>(std::strlen(text)) + 1; }

void swap_value(kesa_cfg_item_node& item, TaggedBlock<char>& value) {
  char* const former = item.itemValue;
  item.itemValue = value.release();
  value.reset(former);
}

// Returns whether the value fits in `size` bytes. If not, it is logged under the name of `function`.
bool fits(const kesa_cfg_item_node& item, uint32_t size, const char* function) {
  const uint32_t needed = size_of(item.itemValue);
  if (size < needed) {
    TIRN_ERROR_AS(function, "Invalid Buffer size, inputSize(%u), actualSize(%u).", size, needed);
  }
  return size >= needed;
}

struct Wanted {
  const char* section;
  const char* item;
  int32_t status;
  KesaCfgItemRecord* record;
};

int32_t kesa_cfg_getFromFile_proc(kesa_cfg_file_node*, const char* section, const kesa_cfg_item_node* item,
                                  void* argument) {
  Wanted& wanted = *static_cast<Wanted*>(argument);
  if (std::strcmp(section, wanted.section) != 0 || std::strcmp(item->itemName, wanted.item) != 0) {
    return KESA_CFG_GO_ON;
  }
  KesaCfgItemRecord& record = *wanted.record;
  if (strcpy_s(record.name, sizeof record.name, item->itemName) != 0 ||
      strcpy_s(record.value, sizeof record.value, item->itemValue) != 0) {
    TIRN_ERROR_AS("kesa_cfg_getFromFile_proc", "Copy item (%s=%s) fail.", item->itemName, item->itemValue);
    return kFail;
  }
  wanted.status = kOk;
  return 0;
}

// A registered file with its lock held, or none. The lock of the list is released once the file's lock is taken.
class HeldFile {
 public:
  HeldFile(const char* name, RwlockHold::Kind kind) {
    const StoreHold files(g_stCfgRwlock, kind);
    node_ = g_files.find(name);
    if (node_ != nullptr) {
      hold_.emplace(node_->rwlock, kind);
    }
  }

  kesa_cfg_file_node* node() const { return node_; }

 private:
  // Held throughout: the two holds are released in the order taken, so alone the first would re-enable cancellation
  // too early.
  const NoCancellation guard_;
  kesa_cfg_file_node* node_;
  std::optional<StoreHold> hold_;
};

}  // namespace

int32_t kesa_cfg_init(const char* file) { return kesa_cfg_init_ex(file); }

int32_t kesa_cfg_init_ex(const char* file) {
  if (file == nullptr) {
    return TIRN_INFO("Input File is NULL pointer."), kFail;
  }
  NameIndex index;
  kesa_cfg_file_node* const node = kesa_cfg_ini_file_parse(file, kesa_cfg_file_proc, &index);
  if (node == nullptr) {
    return TIRN_DEBUG("Parse config file %s failed.", file), kFail;
  }
  StoreHold hold(g_stCfgRwlock, RwlockHold::kWriteMayblock);
  kesa_cfg_file_node* const former = g_files.find(file);
  node->refCount = 1;
  if (former != nullptr) {
    g_files.remove(former);
    node->refCount += former->refCount;
  }
  g_files.add(node);
  hold.release();
  if (former != nullptr) {
    destroy_file(former);
  }
  return kOk;
}

int32_t kesa_cfg_destroy() {
  if (g_files.is_empty()) {
    return kOk;
  }
  const StoreHold hold(g_stCfgRwlock, RwlockHold::kWriteMayblock);
  for (kesa_cfg_file_node& file : g_files.all()) {
    kesa_cfg_destory_section(&file);
    g_files.remove(&file);
    kesa_free(&file);
  }
  return kOk;
}

int32_t kesa_cfg_destroy_ex(const char* file) {
  if (g_files.is_empty()) {
    return kOk;
  }
  if (file == nullptr) {
    return TIRN_ERROR("Param error, pFile is NULL."), kFail;
  }
  StoreHold hold(g_stCfgRwlock, RwlockHold::kWriteMayblock);
  kesa_cfg_file_node* const node = g_files.find(file);
  if (node == nullptr || --node->refCount != 0) {
    return kOk;
  }
  g_files.remove(node);
  hold.release();
  destroy_file(node);
  return kOk;
}

int32_t kesa_cfg_getItemValue(const char* section, const char* item, char* buffer, uint32_t size) {
  if (section == nullptr || item == nullptr || size == 0) {
    return TIRN_INFO("Invalid SectionName or ItemName or size in getItemValue."), kFail;
  }
  {
    const StoreHold hold(g_stCfgRwlock, RwlockHold::kReadMayblock);
    for (kesa_cfg_file_node& file : g_files.all()) {
      const kesa_cfg_item_node* const node = kesa_cfg_find_item_node(&file, section, item);
      if (node == nullptr) {
        continue;
      }
      if (!fits(*node, size, __func__)) {
        return KESA_CFG_BUFFER_TOO_SMALL;
      }
      if (strcpy_s(buffer, size, node->itemValue) == 0) {
        return kOk;
      }
    }
  }
  TIRN_LIMITED(kWarning, "Get ItemValue by pSection %s and pItemName %s failed.", section, item);
  return kFail;
}

int32_t kesa_cfg_getItemValue_ex(const char* file, const char* section, const char* item, char* buffer,
                                 uint32_t size) {
  if (file == nullptr || section == nullptr || item == nullptr || buffer == nullptr || size == 0) {
    return TIRN_ERROR("Invalid SectionName or ItemName or size in getItemValue_ex."), kFail;
  }
  const HeldFile held(file, RwlockHold::kReadMayblock);
  if (held.node() == nullptr) {
    return TIRN_ERROR("Can not find file %s.", file), kFail;
  }
  const kesa_cfg_item_node* const found = kesa_cfg_find_item_node(held.node(), section, item);
  if (found == nullptr) {
    return kFail;
  }
  if (!fits(*found, size, __func__)) {
    return KESA_CFG_BUFFER_TOO_SMALL;
  }
  if (const int error = strcpy_s(buffer, size, found->itemValue)) {
    TIRN_ERROR("Copy fail:%d, item size:%u, item value:%s.", error, size_of(found->itemValue), found->itemValue);
    return kFail;
  }
  return kOk;
}

int32_t kesa_cfg_setItemValue(const char* section, const char* item, const char* value) {
  if (section == nullptr || item == nullptr || value == nullptr) {
    return TIRN_ERROR("Null pointer found, section:%p itemname:%p itemValue:%p", section, item, value), kFail;
  }
  const uint32_t size = size_of(value);
  TaggedBlock<char> copy = allocate_value(size, __func__);
  if (!copy) {
    return kFail;
  }
  if (const int error = strncpy_s(copy.get(), size, value, std::strlen(value))) {
    TIRN_ERROR("strncpy_s failed, errno:%d", error);
    (void)copy.release();  // on purpose not freed, unlike in kesa_cfg_setItemValue_ex
    return kFail;
  }
  // Declared after `copy`, so that the old value, which `copy` then owns, is freed after the lock is released.
  // Searches all files under the lock of the list; kesa_cfg_setItemValue_ex takes the lock of its one file instead.
  const StoreHold hold(g_stCfgRwlock, RwlockHold::kWriteMayblock);
  for (kesa_cfg_file_node& file : g_files.all()) {
    if (kesa_cfg_item_node* const node = kesa_cfg_find_item_node(&file, section, item)) {
      swap_value(*node, copy);
      return kOk;
    }
  }
  return kFail;
}

int32_t kesa_cfg_setItemValue_ex(const char* file, const char* section, const char* item, const char* value) {
  if (file == nullptr || section == nullptr || item == nullptr || value == nullptr) {
    return TIRN_ERROR("Null pointer found, section:%p itemname:%p itemValue:%p", section, item, value), kFail;
  }
  const uint32_t size = size_of(value);
  TaggedBlock<char> copy = allocate_value(size, __func__);
  if (!copy) {
    return kFail;
  }
  if (const int error = strncpy_s(copy.get(), size, value, std::strlen(value))) {
    return TIRN_ERROR("Can not do strncpy_s, errno (%d).", error), kFail;
  }
  const HeldFile held(file, RwlockHold::kWrite);
  if (held.node() == nullptr) {
    return TIRN_ERROR("Config file (%s) is no exist.", file), kFail;
  }
  kesa_cfg_item_node* const found = kesa_cfg_find_item_node(held.node(), section, item);
  if (found == nullptr) {
    return TIRN_ERROR("Can not find item (%s) in file (%s).", item, file), kFail;
  }
  swap_value(*found, copy);
  return kOk;
}

int32_t kesa_cfg_getItemFromFile(const char* file, const char* section, const char* item, KesaCfgItemRecord* record) {
  if (file == nullptr || section == nullptr || item == nullptr || record == nullptr) {
    TIRN_ERROR("Null pointer found, pFile:%p, pSection:%p, pItemName:%p, pItemValue:%p.", file, section, item,
               static_cast<void*>(record));
    return kFail;
  }
  Wanted wanted{section, item, kFail, record};
  kesa_cfg_file_node* const node = kesa_cfg_ini_file_parse(file, kesa_cfg_getFromFile_proc, &wanted);
  if (node != nullptr) {
    kesa_free(node);
    TIRN_DEBUG("Parse config file %s sucess.", file);
  }
  return wanted.status;
}
