/*
 * Commands that run in a shell, and small helpers for the text that comes back.
 *
 * Each command is given to `sh -c` as it is: nothing is quoted or parsed here. If /bin/sh is not bash but /bin/bash
 * can be executed, the shell is /bin/bash under the name sh, so that commands may use `&>`; otherwise it is /bin/sh.
 * popen_s and system_s always use the C library's own shell. The functions ending in _s, and kesa_popen_s_with_pid,
 * screen the command: they refuse it if it contains a special character that is not in `white`, the caller's list of
 * allowed ones. The other functions run any command.
 *
 * Statuses have the format of waitpid: a shell that exits with 3 gives 0x300. Exit status 127 means that the shell
 * could not be executed, or did not find the command. A child inherits every descriptor that is not close-on-exec.
 * Among them are the pipes to other children that still run, so an end of file may arrive late. A child also inherits
 * the signal mask and the ignored signals: what the caller blocks or ignores does not reach the command. Writing to a
 * command that has ended raises SIGPIPE.
 *
 * Nothing here is a cancellation point: a thread that is cancelled while it waits for a command ends after the
 * command, with the child reaped and the pipe closed. To shorten that wait, kill the command.
 *
 * bash is started such that it takes no functions, options or start-up files from the environment (BASH_FUNC_...,
 * SHELLOPTS, BASHOPTS, BASH_ENV, ENV), nor CDPATH and GLOBIGNORE. The rest of the environment, above all PATH, is the
 * caller's and has to be trusted. A command that turns tracing on itself (set -x) still expands PS4 from the
 * environment.
 */
#ifndef TIRN_STR_H
#define TIRN_STR_H

#include <stdbool.h>
#include <stdio.h>

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* Results that are not statuses. KESA_COMMAND_REFUSED is unrelated to the errno value of the same number. */
enum kesa_command_result {
  KESA_COMMAND_MISSING = -22, /* the command, or another required pointer, is NULL */
  KESA_COMMAND_REFUSED = -29, /* a special character that is not allowed */
};

/* The special characters. */
#define KESA_COMMAND_SPECIAL "|;&$<>!\n`"

/*
 * Checks whether *c is a special character.
 * @returns 1 if it is, 0 if not.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int isBlackChar(const char* c);

/*
 * Checks whether *c is one of the characters of `white`.
 * @returns 1 if it is; 0 if not, or if `white` is NULL or empty.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int isWhiteChar(const char* c, const char* white);

/*
 * Checks whether the command contains a special character that is not in `white` (may be NULL). Characters between
 * quotes count too.
 * @returns 1 if it does; 0 if not, or if the command is NULL or empty.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int isDangerousCmd(const char* cmd, const char* white);

/*
 * Runs the command, unscreened, with a pipe to its output (mode "r") or its input (mode "w"). Close the stream with
 * kesa_pclose. The first call allocates a table with four bytes for each descriptor that the process may have at that
 * time; its pages take no memory until they are used. If a pipe exists but no stream can be made of it, the pipe and
 * the child are left behind.
 * @returns the stream, or NULL: for a bad mode, if a system call fails, if there is no memory, or (with EMFILE) if
 * the descriptor has no entry in the table.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API FILE* kesa_popen(const char* cmd, const char* mode);

/*
 * Screens the command and calls kesa_popen.
 * @returns its result, or NULL for a NULL or refused command.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API FILE* kesa_popen_s(const char* cmd, const char* mode, const char* white);

/*
 * Does the same as kesa_popen, but stores the child's process id in `*pid`. The caller closes the stream with fclose
 * and waits for the child. The mode is not checked: any mode that does not begin with 'r' makes a pipe to the
 * command's input, and the mode is passed to fdopen unchanged. If the table of kesa_popen still holds a child for the
 * same descriptor, the entry is removed, so kesa_pclose refuses the stream.
 * @returns the stream, or NULL on failure.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API FILE* kesa_popen_with_pid(const char* cmd, const char* mode, int* pid);

/*
 * Screens the command and calls kesa_popen_with_pid.
 * @returns its result, or NULL for a NULL or refused command, a NULL `pid` or a bad mode.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API FILE* kesa_popen_s_with_pid(const char* cmd, const char* mode, const char* white, int* pid);

/*
 * Closes a stream of kesa_popen or kesa_popen_s and waits for its child, however long that runs. SIGINT, SIGQUIT and
 * SIGHUP are blocked in the calling thread during the wait. The thread is not cancelled during the call.
 * @returns the child's status; -1 if it cannot be waited for; -1 for any other stream, which stays open.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int kesa_pclose(FILE* stream);

/*
 * Screens the command, checks the mode, and calls popen of the C library. Close the stream with pclose.
 * @returns the result of popen, or NULL for a refused command or a bad mode.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API FILE* popen_s(const char* cmd, const char* mode, const char* white);

/*
 * Screens the command and calls system of the C library. The thread is not cancelled before the command has ended.
 * @returns the result of system, KESA_COMMAND_MISSING for NULL, or KESA_COMMAND_REFUSED.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int system_s(const char* cmd, const char* white);

/* Decides whether execv_s may run the program: true to run it. */
typedef bool (*kesa_execv_checker)(const char* path, int argc, char** argv);

/*
 * Replaces the process by the program `path` with these arguments, as execv does. First screens the first `argc`
 * arguments, except those that are NULL, and then calls the checker, unless that is NULL. The path is not screened.
 * @returns only on failure: KESA_COMMAND_MISSING for a NULL path or argv; KESA_COMMAND_REFUSED if an argument is
 * refused or the checker returns false; -1 if execv fails.
 * @safety MT-Safe, AS-Unsafe lock
 */
TIRN_API int execv_s(const char* path, int argc, char** argv, const char* white, kesa_execv_checker checker);

/*
 * Runs the command, unscreened, and waits for it. No signal is blocked or ignored during the wait. The thread is not
 * cancelled before the command has ended.
 * @returns the command's status; KESA_COMMAND_MISSING for NULL; -1 if there is no child or it cannot be waited for.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_system(const char* cmd);

/*
 * Calls kesa_system.
 * @returns its result.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_cmd_exec(const char* cmd);

/*
 * Screens the command and calls kesa_system.
 * @returns its result, or KESA_COMMAND_REFUSED.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_system_s(const char* cmd, const char* white);

/*
 * Replaces popen in a program that is linked with --wrap=popen: calls kesa_popen.
 * @returns its result.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API FILE* __wrap_popen(const char* cmd, const char* mode);

/*
 * Replaces pclose in a program that is linked with --wrap=pclose: calls kesa_pclose.
 * @returns its result.
 * @safety MT-Safe, AS-Unsafe heap lock
 */
TIRN_API int __wrap_pclose(FILE* stream);

/*
 * Replaces system in a program that is linked with --wrap=system: calls kesa_system.
 * @returns its result.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int __wrap_system(const char* cmd);

/*
 * Checks whether the mode is "r" or "w".
 * @returns 0 if it is, -1 if not.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_ismodevalid(const char* mode);

/*
 * Finds the first `c` in the text and stores its position, counted from 0, in `*pos`.
 * @returns 0; -1 if the text has no `c`, or if `c` is NUL; -22 if a pointer is NULL.
 * @safety MT-Safe, AS-Unsafe lock (for a NULL pointer, which is logged)
 */
TIRN_API int kesa_get_charpos(const char* str, char c, unsigned* pos);

/*
 * Cuts the text at its first carriage return and at its first line feed.
 * @safety MT-Safe, AS-Unsafe lock (for NULL, which is logged)
 */
TIRN_API void kesa_filter_newlinesymbol(char* str);

/*
 * Converts the number at the beginning of the text as strtoull does: in base 16 after "0x" or "0X", otherwise in base
 * 10. Changes errno.
 * @returns the number; 0 if there is none, or for NULL, which is logged; the largest number if it is too large, which
 * is logged.
 * @safety MT-Safe locale, AS-Unsafe lock
 */
TIRN_API uint64_t kesa_str_tou64(const char* str);

/*
 * Converts the text with kesa_str_tou64. After a leading '-', converts the rest and negates it.
 * @returns the number; 0 for NULL, which is logged.
 * @safety MT-Safe locale, AS-Unsafe lock
 */
TIRN_API int64_t kesa_str_tos64(const char* str);

/*
 * Checks whether the text has only decimal digits, or only hexadecimal digits after "0x" or "0X". "" and "0x" pass.
 * @returns 0 if it does, -1 if not, -22 for NULL.
 * @safety MT-Safe locale, AS-Safe
 */
TIRN_API int kesa_str_isuint(const char* str);

/*
 * Converts the text to lower case in place, by the rules of the locale. Does nothing for NULL.
 * @safety MT-Safe locale, AS-Safe
 */
TIRN_API void kesa_str_tolower(char* str);

/*
 * Decides where kesa_str_tok starts: at *str or, if that is NULL, at `saved`, which is then stored in *str.
 * @returns the start; NULL, which is logged, if both are NULL or one of the pointers `str` and `delim` is.
 * @safety MT-Safe, AS-Unsafe lock (where it is NULL)
 */
TIRN_API char* check_parameter(char** str, char* saved, const char* delim);

/*
 * Finds the next token of the text, or of the former text if `str` is NULL. Works as strtok, but overwrites a whole
 * run of delimiters with NULs, and returns one empty token for a text that is empty or has only delimiters. The text
 * is changed. The whole process shares one position.
 * @returns the token; NULL, with two log lines, if there are no more or `delim` is NULL.
 * @safety MT-Unsafe race:kesa_str_tok, AS-Unsafe race:kesa_str_tok lock
 */
TIRN_API char* kesa_str_tok(char* str, const char* delim);

TIRN_EXTERN_C_END

#endif
