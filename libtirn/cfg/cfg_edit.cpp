// Implements the functions of tirn/cfg.h that edit trees of nodes.
#include <cstring>

#include "libtirn/base/bounds.h"
#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/base/rwlock_guard.h"
#include "libtirn/cfg/cfg_tree.h"

using namespace tirn;
using namespace tirn::cfg;

namespace {

uint32_t size_of(const char* text) { return text == nullptr ? 1 : static_cast<uint32_t>(std::strlen(text)) + 1; }

}  // namespace

kesa_cfg_item_node* kesa_cfg_new_item_node_ex(const char* item, const char* value) {
  TaggedBlock<kesa_cfg_item_node> node = tagged_block<kesa_cfg_item_node>();
  if (!node) {
    return TIRN_ERROR("Malloc item node failed."), nullptr;
  }
  if (strcpy_s(node->itemName, sizeof node->itemName, item) != 0) {
    return TIRN_ERROR("Strcpy pItemName failed."), nullptr;
  }
  TaggedBlock<char> copy = tagged_block<char>(size_of(value));
  if (!copy) {
    return TIRN_ERROR("Malloc item memory failed."), nullptr;
  }
  if (strcpy_s(copy.get(), size_of(value), value) != 0) {
    return TIRN_ERROR("Strcpy_s pItemValue failed."), nullptr;
  }
  list::init(&node->link);
  node->itemValue = copy.release();
  return node.release();
}

int32_t kesa_cfg_add_item_func(kesa_cfg_file_node* file, const char* section, const char* item, const char* value) {
  const RwlockHold hold(file->rwlock, RwlockHold::kWriteMayblock);
  kesa_cfg_section_node* const node = find_or_add_section(file, section);
  if (node == nullptr) {
    return kFail;
  }
  if (find_item_in(node, item) != nullptr) {
    return TIRN_ERROR("add item fail, item(%s) is already exist", item), kFail;
  }
  kesa_cfg_item_node* const added = kesa_cfg_new_item_node_ex(item, value);
  if (added == nullptr) {
    return TIRN_ERROR("new item node(%s,%s) fail.", item, value == nullptr ? "" : value), kFail;
  }
  list::push_back(&node->items, &added->link);
  return kOk;
}

int32_t kesa_cfg_set_item_func(kesa_cfg_file_node* file, const char* section, const char* item, const char* value) {
  RwlockHold hold(file->rwlock, RwlockHold::kWriteMayblock);
  kesa_cfg_item_node* const node = kesa_cfg_find_item_node(file, section, item);
  if (node == nullptr) {
    return TIRN_ERROR("Set item failed.item(%s) is not exist in file(%s).", item, file->fileName), kFail;
  }
  const uint32_t size = size_of(value);
  TaggedBlock<char> copy = tagged_block<char>(size);
  if (!copy) {
    return TIRN_ERROR("Set item failed,malloc size:%d memory fail.", static_cast<int>(size)), kFail;
  }
  if (strcpy_s(copy.get(), size, value) != 0) {
    return TIRN_ERROR("Strcpy pItemValue fail."), kFail;
  }
  // The order is intended: only the caller uses the tree, and the old value is freed without the lock.
  hold.release();
  kesa_free(node->itemValue);
  node->itemValue = copy.release();
  return kOk;
}

int32_t kesa_cfg_del_item_func(kesa_cfg_file_node* file, const char* section, const char* item, const char*) {
  RwlockHold hold(file->rwlock, RwlockHold::kWriteMayblock);
  kesa_cfg_section_node* const node = kesa_cfg_find_section_node(file, section);
  if (node == nullptr) {
    TIRN_ERROR("Delete item failed.Section(%s) is not exist in file(%s).", section, file->fileName);
    return kFail;
  }
  kesa_cfg_item_node* const deleted = find_item_in(node, item);
  if (deleted == nullptr) {
    return TIRN_ERROR("Delete item failed.item(%s) is not exist in file(%s).", item, file->fileName), kFail;
  }
  list::remove(&deleted->link);
  if (list::is_empty(&node->items)) {
    list::remove(&node->link);
    kesa_free(node);
  }
  hold.release();
  free_item(deleted);
  return kOk;
}

int32_t kesa_cfg_del_section_func(kesa_cfg_file_node* file, const char* section, const char*, const char*) {
  RwlockHold hold(file->rwlock, RwlockHold::kWriteMayblock);
  kesa_cfg_section_node* const node = kesa_cfg_find_section_node(file, section);
  if (node == nullptr) {
    return TIRN_ERROR("Delete section(%s) is not exist in file(%s).", section, file->fileName), kFail;
  }
  list::remove(&node->link);
  hold.release();
  kesa_cfg_destroy_item(node);
  kesa_free(node);
  return kOk;
}
