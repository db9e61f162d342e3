// Indexes the names of a growing tree, so that the parse of a large file does not search the lists for each item.
#ifndef TIRN_CFG_NAME_INDEX_H
#define TIRN_CFG_NAME_INDEX_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "libtirn/base/guard.h"
#include "tirn/cfg.h"

namespace tirn::cfg {

// A hash table of nodes. The key is the list that the node is on and the node's name; the value is the node's link,
// its first field. A small tree needs no allocation. If the table cannot grow, it gives up, and the lists are
// searched.
class NameIndex {
 public:
  // Returns the place of the link of the node with this name. If the place holds nullptr, the name is new, and the
  // caller stores the link there. Returns nullptr once the index has given up. `names_at` is the offset of the name
  // in its node.
  kesa_list_head** place(const void* list, std::string_view name, size_t names_at);

  // The place of an item's name. It is nullptr as long as the section is small, or once the index has given up.
  struct Spot {
    kesa_list_head** place = nullptr;
    bool is_new = false;  // set only without a place: the section certainly has no such item
  };
  Spot spot_of_item(kesa_cfg_section_node& section, std::string_view name);
  // Counts an item that was added to the section of the last spot_of_item.
  void count_item() { ++items_; }

 private:
  struct Entry {
    uint64_t hash;
    const void* list;
    kesa_list_head* link;
  };
  static constexpr size_t kFirst = 64;  // a power of two, like every size

  // The items of a section are in the table once it has this many. For a smaller section, only bits of the hashes of
  // its names are kept; for most new names they show that the name is new.
  static constexpr size_t kSearched = 16;

  bool grow();

  Entry first_[kFirst]{};
  TaggedBlock<Entry> block_;
  Entry* entries_ = first_;
  size_t size_ = kFirst;
  size_t used_ = 0;
  const kesa_cfg_section_node* section_ = nullptr;  // the section of the last spot_of_item
  size_t items_ = 0;                                // number of its items; counted at first up to kSearched + 1
  uint64_t seen_ = 0;                               // bits of the hashes of its names; all set if not known
};

}  // namespace tirn::cfg

#endif
