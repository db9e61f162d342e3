// The names of a growing tree, so that the parse of a large file does not search its lists for each line.
#ifndef TIRN_CFG_NAME_INDEX_H
#define TIRN_CFG_NAME_INDEX_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "libtirn/base/guard.h"
#include "tirn/cfg.h"

namespace tirn::cfg {

// A hash table of nodes by the list that they are on and their name; links stand first in nodes. Small trees are served
// without memory of its own. Where it cannot grow it gives up, and the lists are searched.
class NameIndex {
 public:
  // Where the link of this name's node stands, or is to be stored by the caller: nullptr in it then. No place (nullptr)
  // once the index has given up. `names_at`: the name's offset in its node.
  kesa_list_head** place(const void* list, std::string_view name, size_t names_at);

  // Where an item's name stands: no place as long as the section is small, or once the index has given up.
  struct Spot {
    kesa_list_head** place = nullptr;
    bool is_new = false;  // without a place: the section surely has no such item
  };
  Spot spot_of_item(kesa_cfg_section_node& section, std::string_view name);
  // One more in the section that was asked for last.
  void count_item() { ++items_; }

 private:
  struct Entry {
    uint64_t hash;
    const void* list;
    kesa_list_head* link;
  };
  static constexpr size_t kFirst = 64;  // a power of two, as each size

  // The items of a section of more than that stand here. Of fewer only the bits of their hashes are kept, which tell
  // mostly that a name is new.
  static constexpr size_t kSearched = 16;

  bool grow();

  Entry first_[kFirst]{};
  TaggedBlock<Entry> block_;
  Entry* entries_ = first_;
  size_t size_ = kFirst;
  size_t used_ = 0;
  const kesa_cfg_section_node* section_ = nullptr;  // that was asked for last
  size_t items_ = 0;                                // which it has, as far as that matters
  uint64_t seen_ = 0;                               // bits of their hashes
};

}  // namespace tirn::cfg

#endif
