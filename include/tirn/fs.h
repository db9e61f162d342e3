/* Error reports of file systems over netlink, and cheap pseudo-random bytes. */
#ifndef TIRN_FS_H
#define TIRN_FS_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* The netlink protocol of the reports, the mark in the first word of a report, and the size of a report in bytes. */
#define MORU_NETLINK_EXT3_PROTOCOL 28
#define MORU_NETLINK_EXT3_MAGIC 0x0AE32014u
#define MORU_NETLINK_EXT3_PAYLOAD 56u

/* Results of MORU_Netlink_ext3_listen. */
enum moru_netlink_result {
  MORU_NETLINK_CLOSED = 0,      /* the descriptor was closed */
  MORU_NETLINK_BAD_FD = -2,     /* a negative descriptor */
  MORU_NETLINK_NO_HANDLER = -3, /* no handler */
  MORU_NETLINK_BIND = -4,       /* the socket could not be bound */
  MORU_NETLINK_NO_MEMORY = -5,  /* no buffer */
  MORU_NETLINK_RECEIVE = -6,    /* receiving failed or was interrupted by a signal */
  MORU_NETLINK_BAD_PID = -7,    /* an address below 1 */
};

/* Receives a report of MORU_NETLINK_EXT3_PAYLOAD bytes, the first word of which is the mark. */
typedef void (*moru_netlink_handler)(void* payload);

/* Makes a netlink socket for the reports.
 * @returns its descriptor, or -1.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int MORU_Netlink_ext3_create(void);

/*
 * Binds the socket to address `pid` and group 1, and passes each report to `handler`, on the caller's thread, until
 * the descriptor is closed. Other messages are dropped. Closing the descriptor from another thread does not wake a
 * receiver that already waits: close it in the handler, or let one more message arrive after closing it.
 * @returns one of enum moru_netlink_result.
 * @safety MT-Safe, AS-Unsafe heap (a cancellation point: the descriptor stays open)
 */
TIRN_API int MORU_Netlink_ext3_listen(int fd, int pid, moru_netlink_handler handler);

/* Closes the socket. Does nothing for a negative descriptor.
 * @safety MT-Safe, AS-Safe */
TIRN_API void MORU_Netlink_ext3_release(int fd);

/*
 * Fills `len` bytes from rand_r, seeded with the present time in seconds, so two calls within a second give the same
 * bytes. Do not use them for secrets. Does nothing for a NULL buffer or a length below 1.
 * @safety MT-Safe, AS-Unsafe heap
 */
TIRN_API void get_random_bytes(void* buf, int len);

TIRN_EXTERN_C_END

#endif
