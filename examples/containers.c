/* Puts objects into a tree by their first block, into another one by their length, and into a hash table by their
 * number. The objects embed the nodes, so an insertion allocates nothing. */
#include <stdio.h>
#include <tirn/tirn.h>

struct extent {
  uint64_t first;
  uint64_t length;
  struct kesa_avl_node by_first;
  struct kesa_rb_node by_length;
  struct kesa_hash_node by_id;
};

static int compare(const void* key, const void* object, uint64_t zero) {
  const uint64_t first = *(const uint64_t*)key; /* a block number, or an extent, which begins with one */
  const uint64_t other = ((const struct extent*)object)->first;
  (void)zero;
  return (first > other) - (first < other);
}

/* Returns the extent that contains the block, or NULL: the extent that begins there, or else the nearest before. */
static const struct extent* extent_of(const struct kesa_avl_tree* tree, uint64_t block) {
  uint64_t position;
  const struct extent* extent = kesa_find_avl_node(tree, &block, &position);
  if (extent == NULL) {
    extent = kesa_find_avl_nearest_node(tree, position, KESA_AVL_LEFT);
  }
  return extent != NULL && block - extent->first < extent->length ? extent : NULL;
}

static struct extent* extent_at(struct kesa_rb_node* node) {
  return (struct extent*)((char*)node - offsetof(struct extent, by_length));
}

/* The user of a red-black tree searches for the place; this search allows several extents of equal length. */
static void enter_by_length(struct kesa_rb_root* root, struct extent* extent) {
  struct kesa_rb_node** link = &root->node;
  struct kesa_rb_node* parent = NULL;
  while (*link != NULL) {
    parent = *link;
    link = extent->length < extent_at(parent)->length ? &parent->left : &parent->right;
  }
  kesa_rb_link_node(&extent->by_length, parent, link);
  kesa_rb_insert_color(&extent->by_length, root);
}

static int forget(struct kesa_hash_node* node, void* table) { return kesa_hash_delete(table, 0, node->key, NULL); }

int main(void) {
  static struct extent extents[] = {
      {.first = 4096, .length = 512}, {.first = 0, .length = 64}, {.first = 64, .length = 8}};
  struct kesa_avl_tree tree;
  struct kesa_rb_root lengths = {NULL};
  struct kesa_hash_table* table;
  kesa_create_avl(&tree, compare, sizeof(struct extent), offsetof(struct extent, by_first));
  if (kesa_hash_create(16, &table, TIRN_MODULE_ID) != 0) {
    return 1;
  }
  for (uint64_t i = 0; i < 3; ++i) {
    extents[i].by_id.key = 100 + i;
    kesa_add_avl_node(&tree, &extents[i]);
    enter_by_length(&lengths, &extents[i]);
    kesa_hash_insert(table, &extents[i].by_id);
  }

  for (struct extent* extent = kesa_get_avl_first_node(&tree); extent != NULL;
       extent = kesa_walk_avl_node(&tree, extent, KESA_AVL_RIGHT)) {
    printf("extent %d: blocks from %d, %d of them\n", (int)extent->by_id.key, (int)extent->first,
           (int)extent->length);
  }
  const int held = extent_of(&tree, 70) == &extents[2] && extent_of(&tree, 5000) == NULL;
  printf("block 70 is %sin the third, block 5000 in none\n", held ? "" : "not ");

  printf("the longest first:");
  for (struct kesa_rb_node* last = kesa_rb_last(&lengths); last != NULL; last = kesa_rb_prev(last)) {
    printf(" %d", (int)extent_at(last)->length);
  }
  printf("\n");
  kesa_rb_erase(&extents[0].by_length, &lengths);
  const int shorter = extent_at(kesa_rb_last(&lengths)) == &extents[1];

  struct kesa_hash_node* node;
  const int found = kesa_hash_search(table, 0, 101, &node) == 0 && node == &extents[1].by_id;
  kesa_hash_for_each_ex(table, forget, table, 1);
  const int gone = kesa_hash_search(table, 0, 101, &node) != 0;
  kesa_hash_destory(table, NULL);
  return held && shorter && found && gone ? 0 : 1;
}
