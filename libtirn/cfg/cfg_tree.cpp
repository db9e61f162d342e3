// Implements the search, the growth and the freeing of trees of nodes.
#include "libtirn/cfg/cfg_tree.h"

#include <cstring>

#include "libtirn/base/bounds.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"

namespace tirn::cfg {
namespace {

void mark_unlinked(kesa_list_head& link) { link = {KESA_LIST_POISON_NEXT, KESA_LIST_POISON_PREV}; }

bool equal(const char* a, const char* b) { return std::strcmp(a, b) == 0; }

// The texts of an item to be added. Each has a terminator.
struct Texts {
  const char* section;
  std::string_view name;
  std::string_view value;
};

bool kesa_cfg_check_param(const char* section, const kesa_cfg_item_node* item, Texts& texts) {
  if (section == nullptr || item == nullptr) {
    return TIRN_ERROR_AS("kesa_cfg_check_param", "Null pointer found, section or item."), false;
  }
  if (std::strlen(section) >= KESA_CFG_NAME_SIZE) {
    return TIRN_ERROR_AS("kesa_cfg_check_param", "Section name length too long."), false;
  }
  texts = {section, item->itemName, item->itemValue};
  if (texts.name.size() >= KESA_CFG_NAME_SIZE) {
    return TIRN_ERROR_AS("kesa_cfg_check_param", "Item name length too long."), false;
  }
  if (texts.value.size() >= KESA_CFG_VALUE_SIZE) {
    return TIRN_ERROR_AS("kesa_cfg_check_param", "Item value length too long."), false;
  }
  return true;
}

kesa_cfg_item_node* kesa_cfg_new_item_node(std::string_view name, std::string_view value) {
  TaggedBlock<kesa_cfg_item_node> item = tagged_block<kesa_cfg_item_node>();
  if (!item) {
    TIRN_ERROR_AS("kesa_cfg_new_item_node", "Alloc needed item memory fail, item node size (%u).",
                  static_cast<unsigned>(sizeof *item));
    return nullptr;
  }
  const auto size = static_cast<uint32_t>(value.size()) + 1;
  TaggedBlock<char> copy = tagged_block<char>(size);
  if (!copy) {
    return TIRN_ERROR_AS("kesa_cfg_new_item_node", "Alloc needed item memory fail, size(%u).", size), nullptr;
  }
  if (memcpy_s(item->itemName, sizeof item->itemName, name.data(), name.size() + 1) != 0 ||
      memcpy_s(copy.get(), size, value.data(), size) != 0) {
    TIRN_ERROR_AS("kesa_cfg_new_item_node", "Copy item (%s=%s) fail in new item node.", name.data(), value.data());
    return nullptr;
  }
  mark_unlinked(item->link);
  item->itemValue = copy.release();
  return item.release();
}

// Appends an item to a section, and frees an item of the same name.
void kesa_cfg_add_item_node(kesa_cfg_section_node* section, kesa_cfg_item_node* item, std::string_view name,
                            NameIndex* index) {
  const NameIndex::Spot spot = index == nullptr ? NameIndex::Spot{} : index->spot_of_item(*section, name);
  kesa_cfg_item_node* former = nullptr;
  if (spot.place != nullptr) {
    former = node_of<kesa_cfg_item_node>(*spot.place);
  } else if (!spot.is_new) {
    former = find_item_in(section, item->itemName);
  }
  if (former != nullptr) {
    list::remove(&former->link);
    free_item(former);
  } else if (index != nullptr) {
    index->count_item();
  }
  if (spot.place != nullptr) {
    *spot.place = &item->link;
  }
  list::push_back(&section->items, &item->link);
}

bool add_item(kesa_cfg_file_node* file, const Texts& texts, NameIndex* index) {
  kesa_cfg_section_node* const section = find_or_add_section(file, texts.section, index);
  if (section == nullptr) {
    return false;
  }
  kesa_cfg_item_node* const node = kesa_cfg_new_item_node(texts.name, texts.value);
  if (node == nullptr) {
    return false;
  }
  kesa_cfg_add_item_node(section, node, texts.name, index);
  return true;
}

}  // namespace

kesa_cfg_section_node* kesa_cfg_find_section_node(kesa_cfg_file_node* file, const char* section) {
  if (file == nullptr) {
    return TIRN_ERROR_AS("kesa_cfg_find_section_node", "File is NULL."), nullptr;
  }
  for (kesa_cfg_section_node& node : NodesOf<kesa_cfg_section_node>(file->sections)) {
    if (equal(node.sectionName, section)) {
      return &node;
    }
  }
  return nullptr;
}

kesa_cfg_item_node* find_item_in(kesa_cfg_section_node* section, const char* item) {
  for (kesa_cfg_item_node& node : NodesOf<kesa_cfg_item_node>(section->items)) {
    if (equal(node.itemName, item)) {
      return &node;
    }
  }
  return nullptr;
}

kesa_cfg_item_node* kesa_cfg_find_item_node(kesa_cfg_file_node* file, const char* section, const char* item) {
  kesa_cfg_section_node* const node = kesa_cfg_find_section_node(file, section);
  if (node == nullptr) {
    return TIRN_DEBUG_AS("kesa_cfg_find_item_node", "Can't find section=%s", section), nullptr;
  }
  return find_item_in(node, item);
}

kesa_cfg_file_node* kesa_cfg_new_file_node(const char* file) {
  TaggedBlock<kesa_cfg_file_node> node = tagged_block<kesa_cfg_file_node>();
  if (!node) {
    TIRN_ERROR_AS("kesa_cfg_new_file_node", "Alloc needed filenode memory fail, filenode size (%u).",
                  static_cast<unsigned>(sizeof *node));
    return nullptr;
  }
  if (strcpy_s(node->fileName, sizeof node->fileName, file) != 0) {
    return TIRN_ERROR_AS("kesa_cfg_new_file_node", "Copy file name (%s) fail in new filenode.", file), nullptr;
  }
  mark_unlinked(node->link);
  list::init(&node->sections);
  node->rwlock = 0;
  node->refCount = 0;
  return node.release();
}

kesa_cfg_section_node* kesa_cfg_new_section_node(const char* section) {
  TaggedBlock<kesa_cfg_section_node> node = tagged_block<kesa_cfg_section_node>();
  if (!node || strcpy_s(node->sectionName, sizeof node->sectionName, section) != 0) {
    return nullptr;
  }
  mark_unlinked(node->link);
  list::init(&node->items);
  return node.release();
}

kesa_cfg_section_node* find_or_add_section(kesa_cfg_file_node* file, const char* section, NameIndex* index) {
  // Try the last section first: a tree mostly grows there.
  if (!list::is_empty(&file->sections)) {
    auto* const last = node_of<kesa_cfg_section_node>(file->sections.prev);
    if (equal(last->sectionName, section)) {
      return last;
    }
  }
  kesa_list_head** const place =
      index == nullptr ? nullptr : index->place(file, section, offsetof(kesa_cfg_section_node, sectionName));
  kesa_cfg_section_node* node =
      place == nullptr ? kesa_cfg_find_section_node(file, section) : node_of<kesa_cfg_section_node>(*place);
  if (node == nullptr) {
    node = kesa_cfg_new_section_node(section);
    if (node != nullptr) {
      list::push_back(&file->sections, &node->link);
      if (place != nullptr) {
        *place = &node->link;
      }
    }
  }
  return node;
}

void free_item(kesa_cfg_item_node* item) {
  kesa_free(item->itemValue);
  kesa_free(item);
}

int kesa_cfg_destroy_item(kesa_cfg_section_node* section) {
  if (section == nullptr) {
    return TIRN_ERROR_AS("kesa_cfg_destroy_item", "Null pointer found pSection."), kFail;
  }
  for (kesa_cfg_item_node& item : NodesOf<kesa_cfg_item_node>(section->items)) {
    list::remove(&item.link);
    free_item(&item);
  }
  return kOk;
}

int kesa_cfg_destory_section(kesa_cfg_file_node* file) {
  if (file == nullptr) {
    return TIRN_ERROR_AS("kesa_cfg_destory_section", "Null pointer found pFile."), kFail;
  }
  for (kesa_cfg_section_node& section : NodesOf<kesa_cfg_section_node>(file->sections)) {
    kesa_cfg_destroy_item(&section);
    list::remove(&section.link);
    kesa_free(&section);
  }
  return kOk;
}

int32_t kesa_cfg_file_proc(kesa_cfg_file_node* file, const char* section, const kesa_cfg_item_node* item,
                           void* index) {
  Texts texts{};
  if (!kesa_cfg_check_param(section, item, texts) || !add_item(file, texts, static_cast<NameIndex*>(index))) {
    TIRN_ERROR_AS("kesa_cfg_file_proc", "Set config [%s] : %s = %s fail.", section == nullptr ? "" : section,
                  item == nullptr ? "" : item->itemName, item == nullptr ? "" : item->itemValue);
  }
  return KESA_CFG_GO_ON;
}

}  // namespace tirn::cfg
