/*
 * What every header of the library shares: the export mark, the library's module id, the log levels and the link
 * record of the intrusive lists.
 */
#ifndef TIRN_BASE_H
#define TIRN_BASE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define TIRN_EXTERN_C_BEGIN extern "C" {
#define TIRN_EXTERN_C_END }
#else
#define TIRN_EXTERN_C_BEGIN
#define TIRN_EXTERN_C_END
#endif

/* Marks an exported function or variable. */
#define TIRN_API __attribute__((visibility("default")))

/* Has the compiler check a printf format against its arguments. */
#define TIRN_PRINTF(format_index, first_argument) __attribute__((format(printf, format_index, first_argument)))

/* This library's id among the modules of a node. A module id is below TIRN_MODULE_COUNT. */
#define TIRN_MODULE_ID 381u
#define TIRN_MODULE_COUNT 1024u

TIRN_EXTERN_C_BEGIN

/* The levels of a log line. */
enum tirn_log_level {
  TIRN_LOG_ERROR = 3,
  TIRN_LOG_WARNING = 4,
  TIRN_LOG_INFO = 6,
  TIRN_LOG_DEBUG = 7,
};

/*
 * Link of a circular doubly linked list, embedded in its element; a list's head is such a link too. A link that is on
 * no list holds the two poison values or, if its record says so, points to itself.
 */
struct kesa_list_head {
  struct kesa_list_head* next;
  struct kesa_list_head* prev;
};

#define KESA_LIST_POISON_NEXT ((struct kesa_list_head*)0x100100)
#define KESA_LIST_POISON_PREV ((struct kesa_list_head*)0x200200)

/* A function like printf that receives the text of a display function. */
typedef int (*kesa_print_fn)(const char* format, ...);

TIRN_EXTERN_C_END

#endif
