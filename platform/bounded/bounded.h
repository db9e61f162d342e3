/*
 * Bounds-checked memory, string and scan functions. The destination's size comes first; results are 0 or an
 * error number: EINVAL for a NULL argument or for regions that overlap, ERANGE for what does not fit. On failure
 * the destination is cleared (memory) or emptied (text); where it is NULL or its size is 0 or more than half of
 * the address space, nothing is written. Nothing is padded behind a copied text.
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

/* Memory: `count` bytes into `size` bytes; count above size clears the destination and gives ERANGE. memmove_s
 * takes overlapping regions; a copy onto itself is 0 with any of them. memset_s is not optimised away. */
int memcpy_s(void* destination, size_t size, const void* source, size_t count);
int memmove_s(void* destination, size_t size, const void* source, size_t count);
int memset_s(void* destination, size_t size, int value, size_t count);

/* Text: what does not fit, with its terminator, empties the destination and gives ERANGE; so does appending to a
 * destination without a terminator. `count` limits the characters taken of the source and may be above `size`. */
int strcpy_s(char* destination, size_t size, const char* source);
int strncpy_s(char* destination, size_t size, const char* source, size_t count);
int strcat_s(char* destination, size_t size, const char* source);
int strncat_s(char* destination, size_t size, const char* source, size_t count);

/* As strtok_r: the next token of `text` (NULL: of *position), or NULL, also for a NULL argument. */
char* strtok_s(char* text, const char* delimiters, char** position);

/* The length written; -1 where it does not fit in `size` (the destination is emptied) or on a bad format. */
int sprintf_s(char* destination, size_t size, const char* format, ...) BOUNDED_PRINTF(3, 4);
int vsprintf_s(char* destination, size_t size, const char* format, va_list arguments) BOUNDED_PRINTF(3, 0);

/* The length written; a text longer than `count` is cut there, kept, and gives -1. `count` must be below `size`,
 * else a text that does not fit in `size` - 1 is cut there and gives -1. */
int snprintf_s(char* destination, size_t size, size_t count, const char* format, ...) BOUNDED_PRINTF(4, 5);
int vsnprintf_s(char* destination, size_t size, size_t count, const char* format, va_list arguments)
    BOUNDED_PRINTF(4, 0);

/*
 * As sscanf and fscanf, with a size (unsigned int) behind each destination of %s, %c and %[. A token that does not
 * fit, for %s and %[ with its terminator, ends the scan as a matching failure, with its destination emptied.
 * Conversions: %d %i %u %o %x %X %p, %e %f %g %a, %s %c %[, %n, %%; modifiers hh h l ll z j t L; widths and '*'.
 * Any other conversion, a wide text or a NULL destination ends the scan. A number beyond its argument's type
 * becomes the nearest one of that type. EOF for a NULL text, stream or format.
 */
int sscanf_s(const char* text, const char* format, ...);
int vsscanf_s(const char* text, const char* format, va_list arguments);
int fscanf_s(FILE* stream, const char* format, ...);

#ifdef __cplusplus
}
#endif

#endif
