/*
 * libzut: the kernel side of a node in user space, for machines without it. Nothing happens at load: the state,
 * the device's folder and its thread are made when they are first needed, and again in a forked child.
 */
#ifndef ZUT_H
#define ZUT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ZUT_API __attribute__((visibility("default")))

/*
 * Serves one private call. `word` has the module (381) in its high and the command in its low 32 bits. No command is
 * a cancellation point.
 *
 *  0x000 reset, 0x001 reboot, 0x003 panic   recorded, then ENOSYS; 0x002 stores a reboot count of 0 through c
 *  0x100 to 0x104    u64 seconds: 0x102 in UTC, the others by the zone's clock, with daylight saving (all four) while
 *                    that is in force; a moment that the zone would put before 1970 stays as it is
 *  0x200 to 0x203    console: a state is stored, see zut_console
 *  0x300 to 0x303    frequency: the new step (0 lowest, 4 highest) as u32; 0x304 its kHz as u32
 *  0x305, 0x306      an idle setting for each CPU, u32, 0 at first
 *  0x307             u32: the number of this process's threads that ran last on that CPU
 *  0x400             u64 bytes of free memory
 *  0x401, 0x402      the table of 1024 counters, all 0 at first; 0x402 logs those that are not 0
 *  0x500             registers of a thread of this process; ESRCH, or ETIMEDOUT after 2 s. A real-time signal stops
 *                    the thread (58 if that is free), which may end a sleep early with EINTR
 *  0x701 to 0x704    log what user space knows of a thread or a CPU
 *  0x800             a: u32 word, b: i64 jiffies of 4 ms. 0 with a rest of 0 when the time ran out; -1 with a rest
 *                    above 0 when it did not: EINTR for a signal, EAGAIN for a word of 0. The rest is stored
 *                    through b and c
 *
 * @returns 0, or -1 with errno: EINVAL for another module, ENOSYS for a command that does not exist or that would
 * take the machine down, EFAULT for a pointer that is NULL or all ones, or the command's own error.
 * @safety MT-Safe env locale, AS-Safe; 0x100, 0x101, 0x103, 0x104 and 0x500: AS-Unsafe lock
 */
ZUT_API long zut_private_call(uint64_t word, uint64_t a, uint64_t b, uint64_t c, uint64_t d);

/*
 * Offers the jiffies device: sets the two base paths, which end in a slash and are never freed. The folder is the
 * first of these that can be used: /run/zut-0 (for root only), /dev/shm/zut-UID, /tmp/zut-UID, or a folder below /tmp
 * for this process and its children, whose name nobody can know beforehand. The first process that needs the folder
 * makes it, and all processes of that user share it. The counter is current on return, and continues while one of
 * them lives. If no folder can be written, a device that another process keeps current is offered as it is. One
 * warning lists the folders that were refused because they do not belong to the user alone, cannot be written or have
 * no room, each with its errno. The call is no cancellation point.
 * @returns 0, or -1 if no device can be offered, with the errno of the first folder, or ENODEV if it was withdrawn.
 * @safety MT-Safe, AS-Unsafe lock
 */
ZUT_API int zut_jiffies_device(const char** sysfs, const char** dev);

/* For tests: replaces the handler of a command. NULL restores the command's own. Commands are below 0x900.
 * @returns 0, or -1 with EINVAL for any other command.
 * @safety MT-Safe, AS-Safe */
typedef long (*zut_handler)(uint64_t word, uint64_t a, uint64_t b, uint64_t c, uint64_t d);
ZUT_API int zut_replace(uint32_t command, zut_handler handler);

/* For tests: read the record of the calls of a command.
 * @returns the number of calls so far, and the last word that the command was called with.
 * @safety MT-Safe, AS-Safe */
ZUT_API uint64_t zut_call_count(uint32_t command);
ZUT_API uint64_t zut_last_word(uint32_t command);

/* The last reset, reboot or panic that was called: its arguments, and the text of a panic. */
struct zut_takedown {
  uint32_t command;
  uint64_t a, b, c;
  char text[256];
};

/* For tests: copies the record of the last reset, reboot or panic.
 * @returns 0, or -1 with ENOENT if there was none, or with EAGAIN while one is being recorded.
 * @safety MT-Safe, AS-Safe */
ZUT_API int zut_last_takedown(struct zut_takedown* takedown);

/*
 * For tests: reads the state of the console. `getty_query` is 1 while its getty query runs (0 at first), `printing`
 * is 1 while printing is on (1 at first).
 * @safety MT-Safe, AS-Safe
 */
ZUT_API void zut_console(int* getty_query, int* printing);

/*
 * For tests: zut_offer_jiffies withdraws the jiffies device (0) or offers it again (1). zut_set_jiffies_paths offers
 * it at the test's own paths, of which only the pointers are kept; NULL for both restores the stand-in's own folder.
 * @safety MT-Safe, AS-Unsafe lock
 */
ZUT_API void zut_offer_jiffies(int offered);
ZUT_API void zut_set_jiffies_paths(const char* sysfs, const char* dev);

#ifdef __cplusplus
}
#endif

#endif
