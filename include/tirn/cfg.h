/*
 * Configuration: files of sections and items held in memory, and the items that the kernel side holds.
 *
 * A file consists of lines, of at most KESA_CFG_LINE_SIZE - 1 bytes; longer ones are read in pieces, each a line of
 * its own. Carriage returns are dropped, blanks and tabs at a line's end are too.
 *
 *   [name]       in the first column, with nothing behind: the items that follow are of this section. The ones in
 *                front of the first section are of section "NULL".
 *   name=value   blanks and tabs around both parts are dropped; the value keeps its inner ones and further "=" signs,
 *                and may be empty. There is no comment behind a value.
 *   ;... =...    in the first column: skipped
 *
 * Names are letters, digits and "_" and may be empty. Every other line is skipped, as is an item whose name or value
 * is too long: silently for the most part; the debug log tells of a name that is none, an error of a value that is too
 * long. A section line that is not understood is skipped too, and leaves its items to the section before.
 *
 * g_stCfgRwlock orders the list of registered files, each file's own lock its sections and items; the list's lock is
 * taken first. Functions that name no file hold the list's lock alone, kesa_cfg_init, kesa_cfg_destroy and
 * kesa_cfg_destroy_ex change the list under it. So all run beside each other but for these ("race:files" below):
 * kesa_cfg_getItemValue not beside kesa_cfg_setItemValue_ex, kesa_cfg_setItemValue not beside that and
 * kesa_cfg_getItemValue_ex, and kesa_cfg_destroy not beside either of the two, since they hold a file's lock alone.
 *
 * While a function here parses or holds a lock, cancellations wait. A parse's callback may end its thread
 * (pthread_exit): the parse gives back all that it holds. A forked child finds the store as it was between two changes,
 * and unlocked. A program that forks while it holds g_stCfgRwlock itself still holds it in the child; the fork waits
 * for it for a second or so then.
 */
#ifndef TIRN_CFG_H
#define TIRN_CFG_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* Sizes with the terminator. */
#define KESA_CFG_FILE_NAME_SIZE 256
#define KESA_CFG_NAME_SIZE 64 /* of a section's name and of an item's */
#define KESA_CFG_VALUE_SIZE 4194304
#define KESA_CFG_LINE_SIZE 4194370
#define KESA_CFG_RECORD_VALUE_SIZE 256

#define KESA_CFG_BUFFER_TOO_SMALL (-10000)

/* What a parse's callback returns to go on. */
#define KESA_CFG_GO_ON 1

struct kesa_cfg_item_node {
  struct kesa_list_head link; /* among the section's items */
  char itemName[KESA_CFG_NAME_SIZE];
  char* itemValue; /* the node's own, from kesa_malloc */
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
  uint64_t rwlock;   /* kesa_rwlock_read_lock and so on; over `sections` and all below */
  uint32_t refCount; /* calls of kesa_cfg_init that kesa_cfg_destroy_ex has not balanced */
};

struct KesaCfgItemRecord {
  char name[KESA_CFG_NAME_SIZE];
  char value[KESA_CFG_RECORD_VALUE_SIZE];
};

/* The read-write lock of the list of registered files. */
extern TIRN_API uint64_t g_stCfgRwlock;

/* Registered files */

/* kesa_cfg_init_ex. @safety MT-Safe, AS-Unsafe heap lock */
TIRN_API int32_t kesa_cfg_init(const char* file);

/*
 * Reads a file and registers it, in front of those that are registered already. A file that is registered is read
 * again: the new content takes the place of the old one, and one more reference is counted. 0; -1 if the file cannot
 * be opened (only the debug log tells), for a name of 256 bytes or more, and where there is no memory.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int32_t kesa_cfg_init_ex(const char* file);

/* Forgets every registered file, whatever its references. Always 0.
 * @safety MT-Safe race:files, AS-Unsafe heap lock */
TIRN_API int32_t kesa_cfg_destroy(void);

/* Gives back one reference to a file, and forgets it at the last. 0, also for a file that is not registered; -1 for
 * NULL while any file is registered.
 * @safety MT-Safe, AS-Unsafe heap lock */
TIRN_API int32_t kesa_cfg_destroy_ex(const char* file);

/*
 * Copies an item's value to `buffer`, from the file that was registered last of those that have the item. 0;
 * KESA_CFG_BUFFER_TOO_SMALL, with nothing copied, if `size` is below the value's length with its terminator; -1 if no
 * file has the item (a warning tells, three times in a row at most), for a NULL name and for a size of 0. A NULL
 * buffer is not looked at before it would be copied to: -1 then, as if no file had the item.
 * Linear in the number of files, sections and items.
 * @safety MT-Safe race:files, AS-Unsafe heap lock
 */
TIRN_API int32_t kesa_cfg_getItemValue(const char* section, const char* item, char* buffer, uint32_t size);

/* kesa_cfg_getItemValue of one file; no message tells of a missing item.
 * @safety MT-Safe race:files, AS-Unsafe heap lock */
TIRN_API int32_t kesa_cfg_getItemValue_ex(const char* file, const char* section, const char* item, char* buffer,
                                          uint32_t size);

/* Gives an item another value, in memory alone: in the file that was registered last of those that have it. 0, or -1
 * where none has it. A value may be longer than one that is read.
 * @safety MT-Safe race:files, AS-Unsafe heap lock */
TIRN_API int32_t kesa_cfg_setItemValue(const char* section, const char* item, const char* value);

/* kesa_cfg_setItemValue of one file. Waits for both locks without giving the processor up.
 * @safety MT-Safe race:files, AS-Unsafe heap lock */
TIRN_API int32_t kesa_cfg_setItemValue_ex(const char* file, const char* section, const char* item, const char* value);

/*
 * Reads one item straight from a file on disk; nothing is registered. Of several equal names the first counts, while
 * a registered file has the last. 0; -1 where the item is not there or its value has 256 bytes or more.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int32_t kesa_cfg_getItemFromFile(const char* file, const char* section, const char* item,
                                          struct KesaCfgItemRecord* record);

/* Trees of nodes: each of the four takes the file's lock for writing, and results in 0 or -1. The file and the names
 * are not NULL; a NULL value gives -1. */

/* Adds an item, with its section where that is missing (it stays if the item then cannot be made). -1 if the item
 * exists.
 * @safety MT-Safe, AS-Unsafe heap lock */
TIRN_API int32_t kesa_cfg_add_item_func(struct kesa_cfg_file_node* file, const char* section, const char* item,
                                        const char* value);

/* Gives an item another value. The lock is released before the old value goes: only for a tree that nobody else sees.
 * @safety MT-Unsafe race:file, AS-Unsafe heap lock */
TIRN_API int32_t kesa_cfg_set_item_func(struct kesa_cfg_file_node* file, const char* section, const char* item,
                                        const char* value);

/* Deletes an item, and its section with its last one.
 * @safety MT-Safe, AS-Unsafe heap lock */
TIRN_API int32_t kesa_cfg_del_item_func(struct kesa_cfg_file_node* file, const char* section, const char* item,
                                        const char* ignored);

/* Deletes a section with its items.
 * @safety MT-Safe, AS-Unsafe heap lock */
TIRN_API int32_t kesa_cfg_del_section_func(struct kesa_cfg_file_node* file, const char* section,
                                           const char* ignored_item, const char* ignored_value);

/* An item node whose links point at itself, or NULL: no memory, a NULL argument or a name of 64 bytes or more. The
 * value may have any length. Node and value are freed with kesa_free.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API struct kesa_cfg_item_node* kesa_cfg_new_item_node_ex(const char* item, const char* value);

/* The parser */

/*
 * Gets each item of a parse in order. `item` and its value live as long as the call; its links are not set.
 * KESA_CFG_GO_ON to go on; anything else ends the parse and is its result.
 * It leaves the parse's descriptor alone, which stands ahead of the item meanwhile, and under kesa_cfg_ini_file_parse
 * calls no editor of nodes on its context, whose lock is held.
 */
typedef int32_t (*kesa_cfg_item_fn)(struct kesa_cfg_file_node* context, const char* section,
                                    const struct kesa_cfg_item_node* item, void* argument);

/*
 * Parses from where the descriptor stands, which afterwards stands behind the last line that was looked at. 0 at the
 * end of the file (a failing read counts as that), -1 where there is no memory for a line, or the callback's
 * result. `context` goes to the callback and may be NULL, the callback not.
 * @safety MT-Safe race:fd, AS-Unsafe heap
 */
TIRN_API int32_t kesa_cfg_ini_fd_parse(int fd, struct kesa_cfg_file_node* context, kesa_cfg_item_fn callback,
                                       void* argument);

/* Parses a file into a file node of no references that is on no list: the callback's context, whose lock is held for
 * writing meanwhile. NULL where the file cannot be opened, for a NULL name or one of 256 bytes or more (both logged),
 * without memory, and where the callback's result was neither KESA_CFG_GO_ON nor 0 (the node is freed then, but
 * nothing below it).
 * @safety MT-Safe, AS-Unsafe heap lock */
TIRN_API struct kesa_cfg_file_node* kesa_cfg_ini_file_parse(const char* file, kesa_cfg_item_fn callback,
                                                            void* argument);

/* Items of the kernel side: 0 or -1, also for a NULL argument; a node without its kernel module fails them all. Of a
 * failing system call two lines in the log tell; for EPERM, which callers without the right expect, only one. */

/* Copies an item's value to `buffer`: 258 bytes hold every value; one that is too small gives -1 and is left with an
 * empty text. A section's name has at most 34 bytes, an item's 32.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int32_t kesa_cst_getItem(const char* section, const char* item, char* buffer, uint64_t size);

/* Sets an item's value, of at most 256 bytes.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int32_t kesa_cst_setItem(const char* section, const char* item, const char* value);

/* Has the kernel side read its table anew.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int32_t kesa_cst_reloadConfig(void);

TIRN_EXTERN_C_END

#endif
