// Searches, extends and frees the tree of nodes of a parsed file. The caller holds the file's lock, or is the only
// user of the tree. The functions log under their own names.
#ifndef TIRN_CFG_CFG_TREE_H
#define TIRN_CFG_CFG_TREE_H

#include "libtirn/base/guard.h"
#include "libtirn/base/list.h"
#include "libtirn/cfg/name_index.h"
#include "tirn/cfg.h"

namespace tirn::cfg {

// Returns the node of a link, which is the first field of its node.
template <typename Node>
inline Node* node_of(kesa_list_head* link) {
  static_assert(offsetof(Node, link) == 0);
  return reinterpret_cast<Node*>(link);
}

// The nodes of a list, for a range-based loop. The body of the loop may free the current node.
template <typename Node>
class NodesOf {
 public:
  class Iterator {
   public:
    explicit Iterator(kesa_list_head* link) : link_(link), next_(link->next) {}
    Node& operator*() const { return *node_of<Node>(link_); }
    bool operator!=(const Iterator& other) const { return link_ != other.link_; }
    void operator++() {
      link_ = next_;
      next_ = link_->next;
    }

   private:
    kesa_list_head* link_;
    kesa_list_head* next_;
  };

  explicit NodesOf(kesa_list_head& head) : head_(head) {}
  Iterator begin() const { return Iterator(head_.next); }
  Iterator end() const { return Iterator(&head_); }

 private:
  kesa_list_head& head_;
};

kesa_cfg_section_node* kesa_cfg_find_section_node(kesa_cfg_file_node* file, const char* section);
kesa_cfg_item_node* find_item_in(kesa_cfg_section_node* section, const char* item);
kesa_cfg_item_node* kesa_cfg_find_item_node(kesa_cfg_file_node* file, const char* section, const char* item);

// Return a new node that is on no list, or nullptr if there is no memory or the name is too long.
kesa_cfg_file_node* kesa_cfg_new_file_node(const char* file);
kesa_cfg_section_node* kesa_cfg_new_section_node(const char* section);

// Returns the section; appends it if it is missing. Returns nullptr if it cannot be made.
kesa_cfg_section_node* find_or_add_section(kesa_cfg_file_node* file, const char* section, NameIndex* index = nullptr);

// Frees an item that is on no list.
void free_item(kesa_cfg_item_node* item);

// Frees all items of a section.
int kesa_cfg_destroy_item(kesa_cfg_section_node* section);
// Frees all sections of a file with their items.
int kesa_cfg_destory_section(kesa_cfg_file_node* file);

// The callback of a parse that builds a tree. A refused item does not end the parse. `index` is the NameIndex of the
// parse, or nullptr.
int32_t kesa_cfg_file_proc(kesa_cfg_file_node* file, const char* section, const kesa_cfg_item_node* item,
                           void* index);

}  // namespace tirn::cfg

#endif
