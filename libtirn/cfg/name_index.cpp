// Implements the index of the names of a growing tree.
#include "libtirn/cfg/name_index.h"

#include <algorithm>
#include <cstring>

#include "libtirn/cfg/cfg_tree.h"

namespace tirn::cfg {
namespace {

// Combines both halves of a product, so that each bit of the name affects the low bits, which choose the entry.
uint64_t mix(uint64_t hash, uint64_t value) {
  const unsigned __int128 product = static_cast<unsigned __int128>(hash ^ value) * 0x9E3779B97F4A7C15;
  return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

uint64_t hash_of(const void* list, std::string_view name) {
  uint64_t hash = reinterpret_cast<uintptr_t>(list) ^ name.size();
  uint64_t value = 0;
  size_t at = 0;
  for (; at + sizeof value <= name.size(); at += sizeof value) {
    std::memcpy(&value, name.data() + at, sizeof value);
    hash = mix(hash, value);
  }
  value = 0;
  for (; at < name.size(); ++at) {
    value = value << 8 | static_cast<unsigned char>(name[at]);
  }
  return mix(hash, value);
}

}  // namespace

bool NameIndex::grow() {
  const size_t size = 2 * size_;
  TaggedBlock<Entry> block;
  if (size <= INT32_MAX / sizeof(Entry)) {
    block = tagged_block<Entry>(static_cast<uint32_t>(size * sizeof(Entry)));
  }
  if (block == nullptr) {
    entries_ = nullptr;
    return false;
  }
  std::fill_n(block.get(), size, Entry{});
  for (const Entry* entry = entries_; entry != entries_ + size_; ++entry) {
    if (entry->link != nullptr) {
      size_t at = entry->hash & (size - 1);
      while (block.get()[at].link != nullptr) {
        at = (at + 1) & (size - 1);
      }
      block.get()[at] = *entry;
    }
  }
  block_ = std::move(block);
  entries_ = block_.get();
  size_ = size;
  return true;
}

kesa_list_head** NameIndex::place(const void* list, std::string_view name, size_t names_at) {
  if (entries_ == nullptr || (used_ >= size_ / 2 && !grow())) {
    return nullptr;
  }
  const uint64_t hash = hash_of(list, name);
  size_t at = hash & (size_ - 1);
  for (; entries_[at].link != nullptr; at = (at + 1) & (size_ - 1)) {
    const Entry& entry = entries_[at];
    if (entry.hash == hash && entry.list == list &&
        std::strcmp(reinterpret_cast<const char*>(entry.link) + names_at, name.data()) == 0) {
      return &entries_[at].link;
    }
  }
  entries_[at] = {hash, list, nullptr};
  ++used_;
  return &entries_[at].link;
}

NameIndex::Spot NameIndex::spot_of_item(kesa_cfg_section_node& section, std::string_view name) {
  constexpr size_t kNamesAt = offsetof(kesa_cfg_item_node, itemName);
  if (section_ != &section) {
    section_ = &section;
    items_ = 0;
    for (const kesa_list_head* link = section.items.next; link != &section.items && items_ <= kSearched;
         link = link->next) {
      ++items_;
    }
    seen_ = items_ == 0 ? 0 : UINT64_MAX;
  }
  if (items_ < kSearched) {
    const uint64_t bit = uint64_t{1} << hash_of(nullptr, name) % 64;
    return {nullptr, (std::exchange(seen_, seen_ | bit) & bit) == 0};
  }
  if (items_ == kSearched) {
    for (kesa_cfg_item_node& item : NodesOf<kesa_cfg_item_node>(section.items)) {
      if (kesa_list_head** const place_of_one = place(&section, item.itemName, kNamesAt)) {
        *place_of_one = &item.link;
      }
    }
  }
  return {place(&section, name, kNamesAt)};
}

}  // namespace tirn::cfg
