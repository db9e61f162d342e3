/*
 * hurn, the log library of a node: eleven operations. Every operation works before hurn_init, with the
 * defaults: level info for each module, and standard error as the sink.
 *
 * A log line is formatted on the caller's stack, cut at HURN_LINE_MAX bytes with the mark "...[cut]", and written
 * by one write, so that log lines of several threads never mix:
 *
 *   2026-10-01T12:34:56.789012Z program[PID/TID] error MODULE FILE:LINE FUNCTION: text
 *
 * Each call writes one log line, and so do the calls for raw texts. Line feeds at the beginning and at the end of a
 * text would only make empty text lines and are left out. Control characters within it, except tabs, are written as
 * the escape sequences of C: an argument can neither forge a log line nor control a terminal. The time is universal
 * time. No operation changes errno, and none is a cancellation point.
 */
#ifndef HURN_H
#define HURN_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define HURN_API __attribute__((visibility("default")))

/* The four levels. Any other value is no level, and nothing is written at it. */
#define HURN_ERROR 3u
#define HURN_WARNING 4u
#define HURN_INFO 6u
#define HURN_DEBUG 7u

#define HURN_MODULE_COUNT 1024u
#define HURN_ALL_MODULES 0xFFFFFFFFu
#define HURN_LINE_MAX 4096u

/* The result for a name that stands for no group. */
#define HURN_NO_GROUP 0xFFFFFFFFu

/*
 * A log line as a content callback sees it. For one from hurn_original or hurn_vraw, `file` and `function` are NULL,
 * and all bits of `module`, `level` and `line` are ones. The text is the message after the cut, with its line feeds
 * and control characters unchanged and a terminating zero.
 */
struct hurn_line {
  uint32_t module;
  uint32_t level;
  const char* file;
  uint32_t line;
  const char* function;
  const char* text;
  size_t length;
};

/*
 * The callback gets each log line instead of the sink; without this flag, both get it. Log lines that a callback
 * writes itself, or that a signal handler writes while a callback runs in its thread, go to the sink alone.
 */
#define HURN_CALLBACK_ONLY 1u

struct hurn_content_record {
  uint32_t flags;
  void (*callback)(const struct hurn_line* line);
};

/*
 * Sets the program's name and the sink. `program` is named in each log line; NULL stands for the process's own short
 * name. `sink` is NULL or "stderr"; "syslog"; or "file:PATH", "file:PATH:BYTES" or "file:PATH:BYTES:KEEP" for a file
 * that is renamed to PATH.1 .. PATH.KEEP when it has grown past BYTES (default 16 MiB, 4 files kept; PATH has no
 * colon, BYTES is 1 or more, KEEP is 1 to 999). A log line that the file or the system log does not take goes to
 * standard error. Processes may share a file: each notices that another has renamed it, at the latest when its own
 * count of bytes reaches the limit.
 * @returns 0, or -1 with the former sink and name kept if `sink` has another form, the file cannot be opened or
 * there is no memory.
 * @safety MT-Safe, AS-Unsafe lock
 */
HURN_API int hurn_init(const char* program, const char* sink);

/* Restores the default sink and the default name of the program. Levels and limits stay as they are.
 * @safety MT-Safe, AS-Unsafe lock */
HURN_API void hurn_destroy(void);

/* Sets the highest level at which log lines of a module are wanted. HURN_ALL_MODULES sets it for all modules.
 * @returns 0, or -1 for a module or level that does not exist.
 * @safety MT-Safe, AS-Safe */
HURN_API int hurn_loglevel_set(uint32_t module, uint32_t level);

/* Reads the level of a module.
 * @returns the level, or -1 for a module that does not exist.
 * @safety MT-Safe, AS-Safe */
HURN_API int hurn_loglevel_get(uint32_t module);

/* Tests whether log lines of this module and level are wanted. Modules of 1024 and above follow module 0.
 * @returns 0 if they are, -1 if not or if `level` is none of the four.
 * @safety MT-Safe, AS-Safe */
HURN_API int hurn_level_check(uint32_t module, uint32_t level);

/*
 * Writes a log line, whatever the module's level is. Does nothing, and does not read the format, if `level` is none
 * of the four. `file` and `function` are plain names; NULL is shown as "?". Log lines beyond the limit of the
 * module's or the level's group are counted instead.
 * @safety MT-Safe, AS-Unsafe heap (floating formats)
 */
HURN_API void hurn(uint32_t module, uint32_t level, const char* file, uint32_t line, const char* function,
                   uint32_t reserved, const char* format, ...) __attribute__((format(printf, 7, 8)));

/*
 * Writes the text alone, always: there is no level, no group limit and no prefix. It neither allocates nor locks, so
 * a signal handler that has 8 KiB of stack may call it (without floating formats, and with widths up to a few
 * hundred). In a system log the text has the error level.
 * @returns the length of the text after the cut, or -1 for a NULL or bad format.
 * @safety MT-Safe, AS-Safe
 */
HURN_API int hurn_original(const char* format, ...) __attribute__((format(printf, 1, 2)));

/* Does the same as hurn_original with a va_list.
 * @returns the same.
 * @safety MT-Safe, AS-Safe */
HURN_API int hurn_vraw(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));

/*
 * Finds a group of log lines that share one limit. Its name is "error", "warning", "info" or "debug" (all log lines
 * of that level), or a module's number in decimal.
 * @returns the group's id, or HURN_NO_GROUP for any other name or NULL.
 * @safety MT-Safe, AS-Safe
 */
HURN_API uint32_t hurn_get_group_id(const char* group);

/*
 * Limits a group to `lines` log lines in each window of `milliseconds`, which its first log line opens. More than
 * 2^24 - 1 log lines count as 2^24 - 1. A value of 0 for either lifts the limit. The number of suppressed log lines
 * is logged before the next one that is let through. The limits do not apply to hurn_original and hurn_vraw.
 * @returns 0, or -1 for a group that does not exist.
 * @safety MT-Safe, AS-Safe
 */
HURN_API int hurn_ratelimit_set(uint32_t group, uint32_t lines, uint32_t milliseconds);

/*
 * Copies the record; from then on its callback gets each log line that is written, and the former callback none. A
 * record with a NULL callback ends that.
 * @returns 0, or -1 for a NULL record.
 * @safety MT-Safe, AS-Safe
 */
HURN_API int hurn_register_content_callback(const struct hurn_content_record* record);

#ifdef __cplusplus
}
#endif

#endif
