/*
 * hurn, the log library of a node: eleven operations. Every operation works before hurn_init, with the
 * defaults: level info for each module, lines to standard error.
 *
 * A line is formatted on the caller's stack, cut at HURN_LINE_MAX bytes with the mark "...[cut]", and put out
 * by one write, so lines of several threads never mix:
 *
 *   2026-10-01T12:34:56.789012Z program[PID/TID] error MODULE FILE:LINE FUNCTION: text
 *
 * Each call gives one line, of a raw text too. Line feeds at the beginning and at the end of a text would only make
 * empty lines and are left out. Control characters within it, tabs apart, are written as \n, \r or \x1b: an argument
 * cannot forge a line, nor steer a terminal. The time is universal time. No operation changes errno, and none is a
 * cancellation point.
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

/* The four levels; any other value is no level, and nothing is written at it. */
#define HURN_ERROR 3u
#define HURN_WARNING 4u
#define HURN_INFO 6u
#define HURN_DEBUG 7u

#define HURN_MODULE_COUNT 1024u
#define HURN_ALL_MODULES 0xFFFFFFFFu
#define HURN_LINE_MAX 4096u

/* A group that no name stands for. */
#define HURN_NO_GROUP 0xFFFFFFFFu

/* One line as a content callback sees it. `file` and `function` are NULL, module, level and line are all
 * ones where the line came by hurn_original or hurn_vraw. The text is the message as cut, with its line feeds and
 * control characters as they came and a zero behind it. */
struct hurn_line {
  uint32_t module;
  uint32_t level;
  const char* file;
  uint32_t line;
  const char* function;
  const char* text;
  size_t length;
};

/* The callback sees the line instead of the sink, not beside it. Lines that a callback writes itself, or that a
 * signal handler writes while one runs in its thread, go to the sink alone. */
#define HURN_CALLBACK_ONLY 1u

struct hurn_content_record {
  uint32_t flags;
  void (*callback)(const struct hurn_line* line);
};

/*
 * Names the program and the sink. `program` stands in each line; NULL: the process's own short name. `sink`:
 * NULL or "stderr"; "syslog"; "file:PATH", "file:PATH:BYTES" or "file:PATH:BYTES:KEEP" for a file that is
 * renamed to PATH.1 .. PATH.KEEP when it has grown past BYTES (default 16 MiB, 4 files kept; PATH has no colon,
 * BYTES is 1 or more, KEEP 1 to 999). A line that the file or the system log does not take goes to standard
 * error. Processes may share a file: each finds it renamed at the latest when its own count of bytes is full.
 * 0, or -1 with the former sink and name kept: a sink of another form, or a file that cannot be opened.
 * @safety MT-Safe, AS-Unsafe lock
 */
HURN_API int hurn_init(const char* program, const char* sink);

/* Back to the defaults of the sink and the program's name; levels and limits stay. @safety MT-Safe, AS-Unsafe lock */
HURN_API void hurn_destroy(void);

/* Sets the level up to which lines of a module are wanted; HURN_ALL_MODULES sets all. 0, or -1 for a module
 * or level that does not exist. @safety MT-Safe, AS-Safe */
HURN_API int hurn_loglevel_set(uint32_t module, uint32_t level);

/* The level of a module, or -1 for a module that does not exist. @safety MT-Safe, AS-Safe */
HURN_API int hurn_loglevel_get(uint32_t module);

/* 0 if a line of this module and level is wanted, -1 if not, or if `level` is none of the four. Modules of
 * 1024 and above follow module 0. @safety MT-Safe, AS-Safe */
HURN_API int hurn_level_check(uint32_t module, uint32_t level);

/* Writes a line without asking for the module's level; nothing if `level` is none of the four (the format is
 * then not looked at). `file`, `function`: plain names, NULL shows as "?". Lines beyond a limit of the module's
 * or the level's group are counted instead. @safety MT-Safe, AS-Unsafe heap (floating formats) */
HURN_API void hurn(uint32_t module, uint32_t level, const char* file, uint32_t line, const char* function,
                   uint32_t reserved, const char* format, ...) __attribute__((format(printf, 7, 8)));

/* Writes the text alone, unconditionally: no level, no group limit, no prefix, no allocation and no lock, so it
 * may be called in a signal handler (with formats other than floating ones and widths up to a few hundred) that has
 * 8 KiB of stack. In a system log it has the error level. Returns the text's length as cut, or -1 for a NULL or bad format.
 * @safety MT-Safe, AS-Safe */
HURN_API int hurn_original(const char* format, ...) __attribute__((format(printf, 1, 2)));

/* hurn_original with a va_list. @safety MT-Safe, AS-Safe */
HURN_API int hurn_vraw(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));

/*
 * The id of a group of lines that share one limit: "error", "warning", "info", "debug" (all lines of that
 * level), or a module's number in decimal. HURN_NO_GROUP for any other name or NULL. @safety MT-Safe, AS-Safe
 */
HURN_API uint32_t hurn_get_group_id(const char* group);

/* Lets at most `lines` lines of the group (2^24 - 1 at the highest) through in each window of `milliseconds`, which
 * its first line opens; either of them 0: no limit. Suppressed lines are counted and told by one line ahead of the
 * next line that is let through. Never holds back hurn_original and hurn_vraw. 0, or -1 for a group that does not
 * exist. @safety MT-Safe, AS-Safe */
HURN_API int hurn_ratelimit_set(uint32_t group, uint32_t lines, uint32_t milliseconds);

/* Takes a copy of the record; its callback then sees each line that is written. A record with a NULL callback
 * ends that. A NULL record is refused with -1. @safety MT-Safe, AS-Safe */
HURN_API int hurn_register_content_callback(const struct hurn_content_record* record);

#ifdef __cplusplus
}
#endif

#endif
