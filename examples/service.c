/* One process serves a command on the loopback address, and another one calls it. */
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <tirn/syscall.h>
#include <unistd.h>

enum { GROUP = 7, ECHO_LENGTH = GROUP << 8 };

/* Stores the length of the text in the input buffer. Runs on the thread of the client's connection. */
static int echo_length(uint32_t cmd, MORU_SYSCALL_PARAM* param) {
  uint32_t length = (uint32_t)strnlen(param->pvInBuf, param->uiInBufLen);
  (void)cmd;
  if (param->uiOutBufLen < sizeof length) {
    return -1;
  }
  memcpy(param->pvOutBuf, &length, sizeof length);
  param->uiOutLen = sizeof length;
  return 0;
}

static int serve(int ready) {
  const MORU_SYSCALL_ENTRY entries[] = {{ECHO_LENGTH, MORU_SYSCALL_DIRECT, echo_length}};
  if (MORU_PrivateSysCallInit() != 0 || MORU_RegSysCall(GROUP, entries, 1) != 0) {
    return 1;
  }
  close(ready);
  pause();
  return 0;
}

static int call(void) {
  char text[] = "twelve bytes";
  uint32_t length = 0;
  int tries;
  for (tries = 0; tries < 100; ++tries) { /* the server may need a moment until it listens */
    MORU_SYSCALL_PARAM param = {sizeof text, sizeof length, 0, text, &length};
    if (MORU_SysCall(ECHO_LENGTH, &param) == 0) {
      printf("the server counts %u bytes in \"%s\"\n", length, text);
      return length == strlen(text) ? 0 : 1;
    }
    usleep(10000);
  }
  return 1;
}

int main(void) {
  int ready[2];
  char none;
  pid_t server;
  int result;
  if (pipe(ready) != 0 || (server = fork()) < 0) {
    return 1;
  }
  if (server == 0) {
    close(ready[0]);
    return serve(ready[1]);
  }
  close(ready[1]);
  (void)!read(ready[0], &none, 1); /* returns when the server has registered its command */
  result = call();
  kill(server, SIGTERM);
  waitpid(server, NULL, 0);
  return result;
}
