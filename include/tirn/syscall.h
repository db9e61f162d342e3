/*
 * Private calls between processes of a node: a server registers groups of commands and serves them on the loopback
 * address; clients call them with MORU_SysCall.
 *
 * The protocol is TCP on 127.0.0.1, port 5583. A frame is a header of 32 bytes (struct moru_frame_header) and `len`
 * bytes of payload, in both directions. A client sends one request and waits for its reply before it sends the next.
 *
 * The service trusts every local user: there is no authentication, clients trust the first process to bind the port,
 * and no call has a time-out. A node has one listener, and a call is not repeated. If the listener cannot start a
 * thread for a client, it ends, until MORU_PrivateSysCallIntfInit starts it again; connected clients are still
 * served. Groups 0 to MORU_SYSCALL_GROUPS - 1 are all free: the library registers none.
 */
#ifndef TIRN_SYSCALL_H
#define TIRN_SYSCALL_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

#define MORU_SYSCALL_PORT 5583
#define MORU_SYSCALL_GROUPS 32u          /* group ids are below this */
#define MORU_SYSCALL_GROUP_ENTRIES 255u  /* entries of a group at most */
#define MORU_SYSCALL_INPUT_MAX 510u      /* bytes of input that a server keeps */
#define MORU_SYSCALL_OUTPUT_MAX 1048576u /* bytes of output that a reply can carry */

/* How an entry is called. Registration checks it; both types are called in the same way. */
enum moru_syscall_type {
  MORU_SYSCALL_DIRECT = 0,
  MORU_SYSCALL_INDIRECT = 1,
};

typedef struct MORU_SYSCALL_PARAM {
  uint32_t uiInBufLen;  /* bytes of input */
  uint32_t uiOutBufLen; /* capacity of the output buffer; after MORU_SysCall the bytes received */
  uint32_t uiOutLen;    /* a handler stores here the bytes that it wrote */
  void* pvInBuf;
  void* pvOutBuf;
} MORU_SYSCALL_PARAM;

/*
 * Serves one command, on the thread of the client's connection, so handlers run on several threads at the same time.
 * `param` has the input, and an output buffer of MORU_SYSCALL_OUTPUT_MAX bytes, even if uiOutBufLen, the capacity of
 * the client's buffer, is smaller. The result goes to the client. A handler that ends its thread ends its client's
 * connection.
 */
typedef int (*moru_syscall_handler)(uint32_t cmd, MORU_SYSCALL_PARAM* param);

typedef struct MORU_SYSCALL_ENTRY {
  uint32_t uiCmd;  /* group id times 256, plus the number in the group */
  uint32_t uiType; /* enum moru_syscall_type */
  moru_syscall_handler pfnSysCall;
} MORU_SYSCALL_ENTRY;

/* The header of a frame, in the host's byte order. */
struct moru_frame_header {
  uint64_t cmd;    /* the command; in a reply as received */
  uint64_t len;    /* bytes of payload after the header */
  uint64_t outlen; /* capacity of the client's output buffer; in a reply as received */
  int64_t ret;     /* 0 in a request; the handler's result in a reply, -1 for an unknown command */
};

/*
 * Makes this process a server: clears all registered groups, without freeing their entries, and starts the listener.
 * Call it before registering. A port that cannot be bound is only logged.
 * @returns 0, or -1 if the listener's thread could not be started.
 * @safety MT-Unsafe race:groups, AS-Unsafe lock heap
 */
TIRN_API int MORU_PrivateSysCallInit(void);

/* Starts the listener's thread; registered groups stay.
 * @returns 0, or -1 if the thread could not be started.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int MORU_PrivateSysCallIntfInit(void);

/* Does nothing; a listener runs as long as its process.
 * @safety MT-Safe, AS-Safe */
TIRN_API void MORU_PrivateSysCallIntfExit(void);

/* Does nothing.
 * @returns 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int MORU_SyscallInit(void);

/*
 * Calls command `cmd` of the server on this machine, with the input and output buffers of `param`. Afterwards
 * param->uiOutBufLen holds the bytes received, unless the reply had none. Input beyond MORU_SYSCALL_INPUT_MAX bytes
 * does not reach the handler.
 *
 * All threads of a process share one connection and take turns; a forked child makes a connection of its own. A
 * failure of transport ends the connection, and the next call makes a new one. Always send at least a byte of input:
 * if the connection breaks or a signal arrives while the call waits for the reply, a request without input returns 0,
 * as if it had succeeded, with the output buffer and uiOutBufLen as they were.
 * @returns the handler's result as 32 bits; all ones for an unknown command, a reply larger than the output buffer
 * (the connection can still be used), a NULL `param` or a failure of transport.
 * @safety MT-Safe, AS-Unsafe lock heap (a cancellation point: the connection is dropped and the turn given back)
 */
TIRN_API uint32_t MORU_SysCall(uint32_t cmd, MORU_SYSCALL_PARAM* param);

/*
 * Registers `count` commands of a group; the entries are copied.
 * @returns 0; -1 for a group of MORU_SYSCALL_GROUPS or more, for entries that MORU_CheckGroupCalls refuses, for a
 * group that is registered already (its entries stay), and if there is no memory.
 * @safety MT-Unsafe race:groups, AS-Unsafe heap
 */
TIRN_API int MORU_RegSysCall(uint32_t group, const MORU_SYSCALL_ENTRY* calls, uint32_t count);

/*
 * Checks entries before they are registered.
 * @returns 0; -1 for a NULL array, more than MORU_SYSCALL_GROUP_ENTRIES entries, an unknown type, a command of
 * another group or a NULL handler, which is logged.
 * @safety MT-Safe, AS-Unsafe heap
 */
TIRN_API int MORU_CheckGroupCalls(uint32_t group, const MORU_SYSCALL_ENTRY* calls, uint32_t count);

/*
 * Removes a group and frees its entries. A lookup that starts afterwards finds nothing. The caller must make sure
 * that no call of the group is in progress.
 * @returns 0, or -1 for a group of MORU_SYSCALL_GROUPS or more.
 * @safety MT-Unsafe race:groups, AS-Unsafe heap
 */
TIRN_API int MORU_UnRegSysCall(uint32_t group);

/*
 * Finds the first entry of a command, in its group's order of registration. The entry lives until its group is
 * unregistered. A group that is not registered, or cannot exist, is logged.
 * @returns the entry, or NULL.
 * @safety MT-Unsafe race:groups, AS-Unsafe heap
 */
TIRN_API const MORU_SYSCALL_ENTRY* MORU_FindSysCall(uint32_t cmd);

TIRN_EXTERN_C_END

#endif
