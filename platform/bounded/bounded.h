/*
 * Bounds-checked memory, text and scan functions. The size of the destination is the argument after it.
 *
 * The memory and text functions return 0 or an error number: EINVAL for a NULL argument or for regions that overlap,
 * ERANGE if the result does not fit. On failure the destination is cleared (memory) or emptied (text). If the
 * destination is NULL, or its size is 0 or more than half of the address space, nothing is written. The room after a
 * copied text is not padded.
 */
#ifndef BOUNDED_H
#define BOUNDED_H

#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#define BOUNDED_PRINTF(f, a) __attribute__((format(printf, f, a)))

/*
 * Write `count` bytes to a destination of `size` bytes. A count above the size clears the destination and returns
 * ERANGE. memmove_s accepts regions that overlap; a copy of a region onto itself returns 0 in both copy functions.
 * The compiler does not optimise memset_s away.
 */
int memcpy_s(void* destination, size_t size, const void* source, size_t count);
int memmove_s(void* destination, size_t size, const void* source, size_t count);
int memset_s(void* destination, size_t size, int value, size_t count);

/*
 * Copy or append a text. If the result does not fit with its terminator, or the destination of an append has no
 * terminator, the destination is emptied and the result is ERANGE. `count` limits the number of characters that are
 * taken from the source and may be above `size`.
 */
int strcpy_s(char* destination, size_t size, const char* source);
int strncpy_s(char* destination, size_t size, const char* source, size_t count);
int strcat_s(char* destination, size_t size, const char* source);
int strncat_s(char* destination, size_t size, const char* source, size_t count);

/*
 * Works as strtok_r. Returns the next token of `text`, or of *position if `text` is NULL. Returns NULL if there is
 * none or if another argument is NULL.
 */
char* strtok_s(char* text, const char* delimiters, char** position);

/*
 * Format a text. Return its length, or -1 with the destination emptied if the text does not fit in `size` bytes or
 * the format is bad.
 */
int sprintf_s(char* destination, size_t size, const char* format, ...) BOUNDED_PRINTF(3, 4);
int vsprintf_s(char* destination, size_t size, const char* format, va_list arguments) BOUNDED_PRINTF(3, 0);

/*
 * Format a text of at most `count` characters. Return its length, or -1 if the text was longer; the first `count`
 * characters are then kept. A `count` that is not below `size` counts as `size` - 1. A bad format empties the
 * destination and returns -1.
 */
int snprintf_s(char* destination, size_t size, size_t count, const char* format, ...) BOUNDED_PRINTF(4, 5);
int vsnprintf_s(char* destination, size_t size, size_t count, const char* format, va_list arguments)
    BOUNDED_PRINTF(4, 0);

/*
 * Work as sscanf and fscanf, with a size (unsigned int) as the argument after each destination of %s, %c and %[. A
 * token that does not fit (for %s and %[ with its terminator) empties its destination and ends the scan as a matching
 * failure. The conversions are %d %i %u %o %x %X %p, %e %f %g %a, %s %c %[, %n and %%; the modifiers are hh h l ll z
 * j t L; widths and '*' are allowed. Any other conversion, a wide text or a NULL destination ends the scan. A number
 * beyond the range of its argument's type becomes the nearest value in it. Return EOF for a NULL text, stream or
 * format.
 */
int sscanf_s(const char* text, const char* format, ...);
int vsscanf_s(const char* text, const char* format, va_list arguments);
int fscanf_s(FILE* stream, const char* format, ...);

#ifdef __cplusplus
}
#endif

#endif
