/*
 * The door to the shell, and small helpers for the texts that come back.
 *
 * Every command is one line for a shell, run as `sh -c`. The shell is /bin/sh, or /bin/bash under the name sh where
 * /bin/sh is another one: command lines may rely on `&>`, but for popen_s and system_s, which go to the C library's own
 * shell. Nothing is quoted or parsed here. The calls ending in _s, and
 * kesa_popen_s_with_pid, refuse a command that holds a special character which the caller does not allow; the others
 * run whatever they are given.
 *
 * Statuses are as waitpid stores them: a shell that exits with 3 gives 0x300, and exit status 127 means that the shell
 * could not be started. A child inherits every descriptor that is not close-on-exec, the pipes to other children that
 * still run among them: an end of file may come late. It inherits the signal mask and the ignored signals too: what
 * the caller blocks or ignores does not reach the command. Writing to a command that has ended raises SIGPIPE.
 *
 * Nothing here is a cancellation point: a thread that is cancelled while it waits for a command ends after that, with
 * the child reaped and the pipe closed. Who must not wait so long kills the command.
 *
 * bash takes no functions, options or start-up files from the environment (BASH_FUNC_..., SHELLOPTS, BASHOPTS,
 * BASH_ENV, ENV), nor CDPATH and GLOBIGNORE; the rest of it, PATH above all, is the caller's, which has to be trusted.
 */
#ifndef TIRN_STR_H
#define TIRN_STR_H

#include <stdbool.h>
#include <stdio.h>

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* Results beside the statuses. That of a refusal has nothing to do with the errno of the same number. */
enum kesa_command_result {
  KESA_COMMAND_MISSING = -22, /* no command, or a pointer that must be there is NULL */
  KESA_COMMAND_REFUSED = -29, /* a special character that is not allowed */
};

/* The special characters. */
#define KESA_COMMAND_SPECIAL "|;&$<>!\n`"

/* 1 if *c is one of the special characters, else 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API int isBlackChar(const char* c);

/* 1 if *c stands in `white`, else 0; 0 for a NULL or empty `white`.
 * @safety MT-Safe, AS-Safe */
TIRN_API int isWhiteChar(const char* c, const char* white);

/*
 * 1 if the command holds a special character that does not stand in `white` (may be NULL), wherever it stands, between
 * quotes too. Else 0, also for a NULL or empty command.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int isDangerousCmd(const char* cmd, const char* white);

/*
 * Runs the command unscreened with a pipe to its output (mode "r") or its input ("w"). The stream, to be closed with
 * kesa_pclose, or NULL: a bad mode, a failing system call, or (EMFILE)
 * a descriptor beyond the limit that the process had at the first such call, which makes a table of four bytes for
 * each of them; its pages cost nothing until they are used. Where no stream can be made of a pipe that stands, the pipe
 * and the child are left behind.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API FILE* kesa_popen(const char* cmd, const char* mode);

/* kesa_popen behind the screen; NULL for a NULL or refused command too.
 * @safety MT-Safe, AS-Unsafe heap lock */
TIRN_API FILE* kesa_popen_s(const char* cmd, const char* mode, const char* white);

/*
 * As kesa_popen, but the caller gets the child's process id, closes the stream with fclose and waits for the child.
 * The mode is not checked: any that does not begin with 'r' makes a pipe to the command's input, and it goes on to
 * fdopen as it stands. A child that was left on the same descriptor is forgotten: kesa_pclose refuses the stream.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API FILE* kesa_popen_with_pid(const char* cmd, const char* mode, int* pid);

/* kesa_popen_with_pid behind the screen; NULL for a NULL or refused command, a NULL `pid` and a bad mode too.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API FILE* kesa_popen_s_with_pid(const char* cmd, const char* mode, const char* white, int* pid);

/*
 * Closes a stream of kesa_popen or kesa_popen_s and waits for its child, however long it runs, with SIGINT, SIGQUIT
 * and SIGHUP blocked in the calling thread. The child's status; -1 where it cannot be waited for, and for any other
 * stream, which stays open. The thread is not cancelled meanwhile.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int kesa_pclose(FILE* stream);

/* The C library's popen behind the screen and the check of the mode; the stream is closed with pclose.
 * @safety MT-Safe, AS-Unsafe heap lock */
TIRN_API FILE* popen_s(const char* cmd, const char* mode, const char* white);

/* The C library's system behind the screen: its result, KESA_COMMAND_MISSING or KESA_COMMAND_REFUSED. Not cancelled
 * before the command has ended.
 * @safety MT-Safe, AS-Unsafe heap lock */
TIRN_API int system_s(const char* cmd, const char* white);

/* Gives the last word on what execv_s is about to run: true to run it. */
typedef bool (*kesa_execv_checker)(const char* path, int argc, char** argv);

/*
 * Replaces the process by `path` with these arguments, as execv does, if none of the first `argc` of them is refused
 * (NULL entries are passed over; the path is not screened) and the checker, unless it is NULL, agrees. Comes back
 * with KESA_COMMAND_MISSING for a NULL path or argv, KESA_COMMAND_REFUSED, or execv's -1.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API int execv_s(const char* path, int argc, char** argv, const char* white, kesa_execv_checker checker);

/*
 * Runs the command unscreened and waits for it; no signal is blocked or ignored meanwhile. Its status,
 * KESA_COMMAND_MISSING for NULL, or -1 where there is no child or it cannot be waited for. The thread is not cancelled
 * before the command has ended.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_system(const char* cmd);

/* kesa_system.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_cmd_exec(const char* cmd);

/* kesa_system behind the screen: KESA_COMMAND_REFUSED for a refused command too.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_system_s(const char* cmd, const char* white);

/* What `popen` becomes in a program that is linked with --wrap=popen: kesa_popen.
 * @safety MT-Safe, AS-Unsafe heap lock */
TIRN_API FILE* __wrap_popen(const char* cmd, const char* mode);

/* Likewise for --wrap=pclose: kesa_pclose.
 * @safety MT-Safe, AS-Unsafe heap lock */
TIRN_API int __wrap_pclose(FILE* stream);

/* Likewise for --wrap=system: kesa_system.
 * @safety MT-Safe, AS-Safe */
TIRN_API int __wrap_system(const char* cmd);

/* 0 if the mode is "r" or "w", else -1.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_ismodevalid(const char* mode);

/* Stores where `c` first stands in the text. 0; -1 if it does not, and for NUL; -22 if a pointer is NULL.
 * @safety MT-Safe, AS-Unsafe lock (for a NULL pointer, which is logged) */
TIRN_API int kesa_get_charpos(const char* str, char c, unsigned* pos);

/* Cuts the text at its first carriage return and at its first line feed.
 * @safety MT-Safe, AS-Unsafe lock (for NULL, which is logged) */
TIRN_API void kesa_filter_newlinesymbol(char* str);

/*
 * The number that the text begins with, as strtoull reads it: base 16 behind "0x" or "0X", else base 10. 0 for NULL
 * or where there is none; the greatest number, with a line in the log, for one that is too big. Changes errno.
 * @safety MT-Safe locale, AS-Unsafe lock
 */
TIRN_API uint64_t kesa_str_tou64(const char* str);

/* kesa_str_tou64 of the text, or of what follows a leading '-', negated.
 * @safety MT-Safe locale, AS-Unsafe lock */
TIRN_API int64_t kesa_str_tos64(const char* str);

/* 0 if nothing but decimal digits, or "0x" and nothing but hexadecimal ones, make up the text: "" and "0x" too. Else
 * -1; -22 for NULL.
 * @safety MT-Safe locale, AS-Safe */
TIRN_API int kesa_str_isuint(const char* str);

/* The text in lower case by the locale, in place; nothing for NULL.
 * @safety MT-Safe locale, AS-Safe */
TIRN_API void kesa_str_tolower(char* str);

/*
 * What kesa_str_tok looks at first: where the scan begins, at *str or, if that is NULL, at `saved`, which is then
 * stored in *str. NULL, with a line in the log, if there is neither or a pointer is NULL.
 * @safety MT-Safe, AS-Unsafe lock (where it is NULL)
 */
TIRN_API char* check_parameter(char** str, char* saved, const char* delim);

/*
 * The next token of the text, which is changed; of the former text for NULL. As strtok, except that NULs are written
 * over a whole run of delimiters and that a text of nothing but delimiters, or of nothing, gives one empty token. NULL
 * with two lines in the log when there are no more. The position is one for the whole process.
 * @safety MT-Unsafe race:kesa_str_tok, AS-Unsafe race:kesa_str_tok lock
 */
TIRN_API char* kesa_str_tok(char* str, const char* delim);

TIRN_EXTERN_C_END

#endif
