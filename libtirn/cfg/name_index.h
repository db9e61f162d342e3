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

 private:
  struct Entry {
    uint64_t hash;
    const void* list;
    kesa_list_head* link;
  };
  static constexpr size_t kFirst = 64;  // a power of two, as each size

  bool grow();

  Entry first_[kFirst]{};
  TaggedBlock<Entry> block_;
  Entry* entries_ = first_;
  size_t size_ = kFirst;
  size_t used_ = 0;
};

}  // namespace tirn::cfg

#endif
