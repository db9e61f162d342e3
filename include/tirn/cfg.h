/*
 * Configuration: files of sections and items that are held in memory, and the items that the kernel side holds.
 *
 * A file consists of text lines of at most KESA_CFG_LINE_SIZE - 1 bytes; a longer one is read in pieces, each of
 * which counts as a text line. All carriage returns are dropped, and so are blanks and tabs at the end of a text
 * line.
 *
 *   [name]       in the first column, with nothing after it: starts a section, to which the items that follow belong.
 *                Items before the first section belong to a section with the name "NULL".
 *   name=value   an item. Blanks and tabs around both parts are dropped. The value keeps its inner blanks and further
 *                "=" signs, and may be empty. A comment cannot follow it.
 *   ;... =...    in the first column: a comment, which is skipped
 *
 * Names consist of letters, digits and "_" and may be empty. Every other text line is skipped, and so is an item
 * whose name or value is too long. Most of these are not logged: only a name with other characters is, at debug
 * level, and a value that is too long, as an error. If a section's text line is skipped, the items after it belong to
 * the section before it.
 *
 * g_stCfgRwlock guards the list of registered files, and the lock of each file guards its sections and items. The
 * lock of the list is taken first. Functions without a file argument hold only the lock of the list; kesa_cfg_init,
 * kesa_cfg_destroy and kesa_cfg_destroy_ex change the list under it. kesa_cfg_getItemValue_ex and
 * kesa_cfg_setItemValue_ex hold only the lock of their file while they use its items. All functions may therefore run
 * concurrently, except for the pairs marked "no" in this table ("race:files" below):
 *
 *   may run beside            getItemValue  getItemValue_ex  setItemValue  setItemValue_ex  destroy
 *   kesa_cfg_getItemValue     yes           yes              yes           no               yes
 *   kesa_cfg_getItemValue_ex  yes           yes              no            yes              no
 *   kesa_cfg_setItemValue     yes           no               yes           no               yes
 *   kesa_cfg_setItemValue_ex  no            yes              no            yes              no
 *   kesa_cfg_destroy          yes           no               yes           no               yes
 *
 * While a function here parses or holds a lock, its thread cannot be cancelled. The callback of a parse may end its
 * thread (pthread_exit): the parse then releases everything that it holds. A forked child finds the store unlocked
 * and not in the middle of a change. If a program forks while it holds g_stCfgRwlock itself, the fork tries to take
 * the lock for about a second and then goes on; in the child the lock stays held.
 */
#ifndef TIRN_CFG_H
#define TIRN_CFG_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* Sizes, including the terminator. */
#define KESA_CFG_FILE_NAME_SIZE 256
#define KESA_CFG_NAME_SIZE 64 /* of the name of a section or an item */
#define KESA_CFG_VALUE_SIZE 4194304
#define KESA_CFG_LINE_SIZE 4194370
#define KESA_CFG_RECORD_VALUE_SIZE 256

#define KESA_CFG_BUFFER_TOO_SMALL (-10000)

/* The result with which the callback of a parse lets the parse go on. */
#define KESA_CFG_GO_ON 1

struct kesa_cfg_item_node {
  struct kesa_list_head link; /* among the section's items */
  char itemName[KESA_CFG_NAME_SIZE];
  char* itemValue; /* owned by the node, from kesa_malloc */
};

struct kesa_cfg_section_node {
  struct kesa_list_head link; /* among the file's sections */
  struct kesa_list_head items;
  char sectionName[KESA_CFG_NAME_SIZE];
};

struct kesa_cfg_file_node {
  struct kesa_list_head link; /* among the registered files */
  struct kesa_list_head sections;
  char fileName[KESA_CFG_FILE_NAME_SIZE];
  uint64_t rwlock;   /* for kesa_rwlock_read_lock and so on; guards `sections` and everything below */
  uint32_t refCount; /* calls of kesa_cfg_init not yet balanced by kesa_cfg_destroy_ex */
};

struct KesaCfgItemRecord {
  char name[KESA_CFG_NAME_SIZE];
  char value[KESA_CFG_RECORD_VALUE_SIZE];
};

/* The read-write lock of the list of registered files. */
extern TIRN_API uint64_t g_stCfgRwlock;

/* Registered files */

/*
 * Calls kesa_cfg_init_ex.
 * @returns its result.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int32_t kesa_cfg_init(const char* file);

/*
 * Reads a file and registers it in front of the files that are registered already. If the file is registered, it is
 * read again: the new content replaces the old, and one more reference is counted.
 * @returns 0; -1 if the file cannot be opened, which is logged at debug level only, for a NULL name or one of 256
 * bytes or more, or if there is no memory.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int32_t kesa_cfg_init_ex(const char* file);

/*
 * Removes and frees every registered file, whatever its number of references.
 * @returns 0.
 * @safety MT-Safe race:files, AS-Unsafe heap lock
 */
TIRN_API int32_t kesa_cfg_destroy(void);

/*
 * Drops one reference to a file. The last one removes and frees the file.
 * @returns 0, also for a file that is not registered; -1 for NULL while any file is registered.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int32_t kesa_cfg_destroy_ex(const char* file);

/*
 * Copies the value of an item to `buffer`. Of the files that have the item, the one that was registered last counts.
 * The search is linear in the number of files, sections and items.
 * @returns 0; KESA_CFG_BUFFER_TOO_SMALL, with nothing copied, if the value with its terminator is longer than `size`;
 * -1 if no file has the item, for a NULL name, or for a size of 0. That no file has the item is logged as a warning;
 * after three such log lines in a row, none is written for a minute. A NULL buffer is noticed only by the copy: the
 * result is then -1, as if no file had the item.
 * @safety MT-Safe race:files, AS-Unsafe heap lock
 */
TIRN_API int32_t kesa_cfg_getItemValue(const char* section, const char* item, char* buffer, uint32_t size);

/*
 * Copies the value of an item of one registered file to `buffer`. A missing item is not logged; a missing section is,
 * at debug level.
 * @returns 0; KESA_CFG_BUFFER_TOO_SMALL as kesa_cfg_getItemValue does; -1 if the file is not registered or does not
 * have the item, for a NULL pointer, or for a size of 0.
 * @safety MT-Safe race:files, AS-Unsafe heap lock
 */
TIRN_API int32_t kesa_cfg_getItemValue_ex(const char* file, const char* section, const char* item, char* buffer,
                                          uint32_t size);

/*
 * Replaces the value of an item in memory; the file on disk is not changed. Of the files that have the item, the one
 * that was registered last counts. The value may be longer than one that is read from a file.
 * @returns 0; -1 if no file has the item, for a NULL pointer, or if there is no memory.
 * @safety MT-Safe race:files, AS-Unsafe heap lock
 */
TIRN_API int32_t kesa_cfg_setItemValue(const char* section, const char* item, const char* value);

/*
 * Does what kesa_cfg_setItemValue does, for one registered file. It only spins for both locks and never sleeps.
 * @returns 0; -1 if the file is not registered or does not have the item, for a NULL pointer, or if there is no
 * memory.
 * @safety MT-Safe race:files, AS-Unsafe heap lock
 */
TIRN_API int32_t kesa_cfg_setItemValue_ex(const char* file, const char* section, const char* item, const char* value);

/*
 * Reads one item straight from a file on disk; nothing is registered. Of several items with the same name the first
 * counts, while a registered file keeps the last.
 * @returns 0; -1 if the file cannot be read or does not have the item, if the value has 256 bytes or more, or for a
 * NULL pointer.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int32_t kesa_cfg_getItemFromFile(const char* file, const char* section, const char* item,
                                          struct KesaCfgItemRecord* record);

/*
 * Trees of nodes. The next four functions take the file's lock for writing; kesa_cfg_new_item_node_ex takes none. The
 * file and the names given to the four must not be NULL; ignored arguments may be.
 */

/*
 * Adds an item, and its section if that is missing. If the item then cannot be made, the section stays.
 * @returns 0; -1 if the item exists, for a name that is too long, for a NULL value, or if there is no memory.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int32_t kesa_cfg_add_item_func(struct kesa_cfg_file_node* file, const char* section, const char* item,
                                        const char* value);

/*
 * Replaces the value of an item. The lock is released before the old value is freed and the new one stored, so no
 * other thread may use the tree.
 * @returns 0; -1 if the item does not exist, for a NULL value, or if there is no memory.
 * @safety MT-Unsafe race:file, AS-Unsafe heap lock
 */
TIRN_API int32_t kesa_cfg_set_item_func(struct kesa_cfg_file_node* file, const char* section, const char* item,
                                        const char* value);

/*
 * Deletes an item. The last item of a section takes the section with it.
 * @returns 0, or -1 if the item does not exist.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int32_t kesa_cfg_del_item_func(struct kesa_cfg_file_node* file, const char* section, const char* item,
                                        const char* ignored);

/*
 * Deletes a section with its items.
 * @returns 0, or -1 if the section does not exist.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int32_t kesa_cfg_del_section_func(struct kesa_cfg_file_node* file, const char* section,
                                           const char* ignored_item, const char* ignored_value);

/*
 * Makes an item node whose links point at the node itself. The value may have any length. The caller frees the node
 * and its value with kesa_free.
 * @returns the node; NULL for a NULL argument or a name of 64 bytes or more, or if there is no memory.
 * @safety MT-Safe, AS-Unsafe heap
 */
TIRN_API struct kesa_cfg_item_node* kesa_cfg_new_item_node_ex(const char* item, const char* value);

/* The parser */

/*
 * Receives each item of a parse in order. `item` and its value are valid during the call only; the links of `item`
 * are not set. The callback must not use the descriptor of the parse, whose offset may be past the item. Under
 * kesa_cfg_ini_file_parse, the lock of `context` is held, so the callback must not pass it to the functions that edit
 * nodes.
 * @returns KESA_CFG_GO_ON to go on; any other value ends the parse and becomes its result.
 */
typedef int32_t (*kesa_cfg_item_fn)(struct kesa_cfg_file_node* context, const char* section,
                                    const struct kesa_cfg_item_node* item, void* argument);

/*
 * Parses from the current offset of the descriptor, and leaves the offset after the last text line that was parsed.
 * `context` is passed to the callback and may be NULL; the callback must not be NULL.
 * @returns 0 at the end of the file, also if a read fails; -1 if there is no memory for a text line; or the result of
 * the callback that ended the parse.
 * @safety MT-Safe race:fd, AS-Unsafe heap
 */
TIRN_API int32_t kesa_cfg_ini_fd_parse(int fd, struct kesa_cfg_file_node* context, kesa_cfg_item_fn callback,
                                       void* argument);

/*
 * Parses a file with a new file node as the context of the callback. The node's lock is held for writing during the
 * parse. The node is on no list and has no references.
 * @returns the node; NULL if the file cannot be opened, for a NULL name or one of 256 bytes or more (both logged), if
 * there is no memory, or if a callback's result was neither KESA_CFG_GO_ON nor 0. A node whose parse failed is freed,
 * but not what the callback has linked to it.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API struct kesa_cfg_file_node* kesa_cfg_ini_file_parse(const char* file, kesa_cfg_item_fn callback,
                                                            void* argument);

/*
 * Items of the kernel side. All of these calls fail on a node without its kernel module. If a system call fails, both
 * that call and the function are logged; after an ioctl that fails with EPERM, which callers without the right
 * expect, only the function is.
 */

/*
 * Copies the value of an item to `buffer`. 258 bytes hold every value. The name of a section has at most 34 bytes,
 * the name of an item at most 32.
 * @returns 0; -1 if a system call fails, for a NULL argument, for a name that is too long, or if the buffer is too
 * small, which then holds an empty text.
 * @safety MT-Safe, AS-Unsafe heap
 */
TIRN_API int32_t kesa_cst_getItem(const char* section, const char* item, char* buffer, uint64_t size);

/*
 * Sets the value of an item, of at most 256 bytes.
 * @returns 0; -1 if a system call fails, for a NULL argument, or for a name or a value that is too long.
 * @safety MT-Safe, AS-Unsafe heap
 */
TIRN_API int32_t kesa_cst_setItem(const char* section, const char* item, const char* value);

/*
 * Makes the kernel side read its table again.
 * @returns 0, or -1 if a system call fails.
 * @safety MT-Safe, AS-Unsafe heap
 */
TIRN_API int32_t kesa_cst_reloadConfig(void);

TIRN_EXTERN_C_END

#endif
