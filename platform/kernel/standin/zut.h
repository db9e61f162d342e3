/*
 * libzut: the kernel side of a node in user space, for machines without it. Nothing happens at load: the state,
 * the device's folder and its thread come at first need, and again in a forked child.
 */
#ifndef ZUT_H
#define ZUT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ZUT_API __attribute__((visibility("default")))

/* Serves one private call; `word` holds the module in its high and the command in its low 32 bits. -1 with errno
 * where the command fails or does not exist. */
ZUT_API long zut_private_call(uint64_t word, uint64_t a, uint64_t b, uint64_t c, uint64_t d);

/* The jiffies device: the two base paths, each ending in a slash. 0; -1 with errno where it cannot be offered or
 * has been withdrawn. */
ZUT_API int zut_jiffies_device(const char** sysfs, const char** dev);

/* For tests. A handler replaces a command's own (NULL restores it); commands are below 0x900. */
typedef long (*zut_handler)(uint64_t word, uint64_t a, uint64_t b, uint64_t c, uint64_t d);
ZUT_API int zut_replace(uint32_t command, zut_handler handler);

/* Calls made of a command so far, and the last word that it was called with. */
ZUT_API uint64_t zut_call_count(uint32_t command);
ZUT_API uint64_t zut_last_word(uint32_t command);

/* Withdraws the jiffies device (0) or offers it again (1); or offers it at a place of the test's own (both paths
 * not NULL, kept by pointer). */
ZUT_API void zut_offer_jiffies(int offered);
ZUT_API void zut_set_jiffies_paths(const char* sysfs, const char* dev);

#ifdef __cplusplus
}
#endif

#endif
