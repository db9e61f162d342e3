/* Objects in a tree by their first block and in a hash table by their number: they embed the nodes, nothing is allocated. */
#include <stdio.h>
#include <tirn/tirn.h>

struct extent {
  uint64_t first;
  uint64_t length;
  struct kesa_avl_node by_first;
  struct kesa_hash_node by_id;
};

static int compare(const void* key, const void* object, uint64_t zero) {
  const uint64_t first = *(const uint64_t*)key; /* a key, or an extent, which begins with it */
  const uint64_t other = ((const struct extent*)object)->first;
  (void)zero;
  return (first > other) - (first < other);
}

/* The extent that holds a block: the one that begins there, or the nearest before. */
static const struct extent* extent_of(const struct kesa_avl_tree* tree, uint64_t block) {
  uint64_t position;
  const struct extent* extent = kesa_find_avl_node(tree, &block, &position);
  if (extent == NULL) {
    extent = kesa_find_avl_nearest_node(tree, position, KESA_AVL_LEFT);
  }
  return extent != NULL && block - extent->first < extent->length ? extent : NULL;
}

static int forget(struct kesa_hash_node* node, void* table) { return kesa_hash_delete(table, 0, node->key, NULL); }

int main(void) {
  static struct extent extents[] = {
      {.first = 4096, .length = 512}, {.first = 0, .length = 64}, {.first = 64, .length = 8}};
  struct kesa_avl_tree tree;
  struct kesa_hash_table* table;
  kesa_create_avl(&tree, compare, sizeof(struct extent), offsetof(struct extent, by_first));
  if (kesa_hash_create(16, &table, TIRN_MODULE_ID) != 0) {
    return 1;
  }
  for (uint64_t i = 0; i < 3; ++i) {
    extents[i].by_id.key = 100 + i;
    kesa_add_avl_node(&tree, &extents[i]);
    kesa_hash_insert(table, &extents[i].by_id);
  }

  for (struct extent* extent = kesa_get_avl_first_node(&tree); extent != NULL;
       extent = kesa_walk_avl_node(&tree, extent, KESA_AVL_RIGHT)) {
    printf("extent %d: blocks from %d, %d of them\n", (int)extent->by_id.key, (int)extent->first,
           (int)extent->length);
  }
  const int held = extent_of(&tree, 70) == &extents[2] && extent_of(&tree, 5000) == NULL;
  printf("block 70 is %sin the third, block 5000 in none\n", held ? "" : "not ");

  struct kesa_hash_node* node;
  const int found = kesa_hash_search(table, 0, 101, &node) == 0 && node == &extents[1].by_id;
  kesa_hash_for_each_ex(table, forget, table, 1);
  const int gone = kesa_hash_search(table, 0, 101, &node) != 0;
  kesa_hash_destory(table, NULL);
  return held && found && gone ? 0 : 1;
}
