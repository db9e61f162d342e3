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

/*
 * Serves one private call; `word` holds the module (381) in its high and the command in its low 32 bits. -1 with
 * errno where the command fails: EINVAL for another module, ENOSYS for a command that does not exist or that
 * would take the machine down, EFAULT for a pointer that is NULL or all ones.
 *
 *  0x000 reset, 0x001 reboot, 0x003 panic   recorded, ENOSYS; 0x002 stores a reboot count of 0 through c
 *  0x100 to 0x104    u64 seconds: by the zone's clock (local, and with daylight saving where it is in force, are
 *                    the same), 0x102 in UTC; a moment that the zone would put before 1970 stays as it is
 *  0x200 to 0x203    console: a state is kept, see zut_console
 *  0x300 to 0x303    frequency: the step now (0 lowest, 4 highest) as u32; 0x304 its kHz as u32
 *  0x305, 0x306      an idle setting a CPU, u32, 0 at first
 *  0x307             u32: how many of this process's threads ran last on that CPU
 *  0x400             u64 bytes of free memory
 *  0x401, 0x402      the table of 1024 counters, zeroed at first; prints those that are not zero
 *  0x500             registers of a thread of this process; ESRCH, or ETIMEDOUT after 2 s. The thread is stopped
 *                    by a real-time signal (58 where that is free), which may end a sleep early with EINTR
 *  0x701 to 0x704    print what user space can tell
 *  0x800             a: u32 word, b: i64 jiffies of 4 ms. 0 with a rest of 0 when the time ran out; -1 with a rest
 *                    above 0 when it did not: EINTR for a signal, EAGAIN for a word that is zero. The rest goes to
 *                    c and to b
 * No command is a cancellation point.
 * @safety MT-Safe env locale, AS-Safe; 0x100, 0x101, 0x103, 0x104 and 0x500: AS-Unsafe lock
 */
ZUT_API long zut_private_call(uint64_t word, uint64_t a, uint64_t b, uint64_t c, uint64_t d);

/*
 * The jiffies device: the two base paths, each ending in a slash, kept for ever. Its folder is the first of these that
 * can be had: /run/zut-0 (for root only), /dev/shm/zut-UID, /tmp/zut-UID, or one below /tmp whose name nobody can know
 * beforehand, for this process and its children. It is made by the first process that needs it, and all processes of
 * that user share it; the counter is current on return, and goes on as long as one of them lives. Where nothing can be
 * written, a device that another process keeps current is offered as it is. One warning tells the places that were
 * refused, as they are not the user's alone, cannot be written or have no room, each with its errno. 0; -1 where no
 * device can be offered, with errno of the first place, or ENODEV where it was withdrawn. No cancellation point.
 * @safety MT-Safe, AS-Unsafe lock
 */
ZUT_API int zut_jiffies_device(const char** sysfs, const char** dev);

/* For tests. A handler replaces a command's own (NULL restores it); commands are below 0x900. 0, or -1 with
 * EINVAL for any other command. @safety MT-Safe, AS-Safe */
typedef long (*zut_handler)(uint64_t word, uint64_t a, uint64_t b, uint64_t c, uint64_t d);
ZUT_API int zut_replace(uint32_t command, zut_handler handler);

/* Calls made of a command so far, and the last word that it was called with. @safety MT-Safe, AS-Safe */
ZUT_API uint64_t zut_call_count(uint32_t command);
ZUT_API uint64_t zut_last_word(uint32_t command);

/* The last reset, reboot or panic that was asked for: its arguments, and the text of a panic. */
struct zut_takedown {
  uint32_t command;
  uint64_t a, b, c;
  char text[256];
};

/* 0; -1 with ENOENT where nothing of the kind was asked for, EAGAIN while one is being recorded. @safety MT-Safe, AS-Safe */
ZUT_API int zut_last_takedown(struct zut_takedown* takedown);

/* The console's state: 1 while its getty query runs (0 at first), 1 while printing is on (1 at first).
 * @safety MT-Safe, AS-Safe */
ZUT_API void zut_console(int* getty_query, int* printing);

/* Withdraws the jiffies device (0) or offers it again (1); or offers it at a place of the test's own (kept by
 * pointer; both NULL: back to the stand-in's own place). @safety MT-Safe, AS-Unsafe lock */
ZUT_API void zut_offer_jiffies(int offered);
ZUT_API void zut_set_jiffies_paths(const char* sysfs, const char* dev);

#ifdef __cplusplus
}
#endif

#endif
