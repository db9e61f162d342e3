/* Runs screened commands in a shell: one that is refused, one that runs, and one whose output is read. */
#include <stdio.h>
#include <sys/wait.h>
#include <tirn/str.h>

int main(void) {
  char line[64];
  FILE* stream;
  int status;
  /* "x; reboot" stands for a name from outside; the command itself needs no special character but "|". */
  if (kesa_system_s("ls / | grep x; reboot", "|") != KESA_COMMAND_REFUSED) {
    return 1;
  }
  printf("refused: a semicolon\n");
  status = kesa_system_s("test -d /no/such/folder &>/dev/null", "&>");
  if (status < 0) {
    return 1;
  }
  printf("exit status %d\n", WEXITSTATUS(status));
  stream = kesa_popen_s("uname -s | tr A-Z a-z", "r", "|");
  if (stream == NULL) {
    return 1;
  }
  if (fgets(line, sizeof line, stream) != NULL) {
    kesa_filter_newlinesymbol(line);
    printf("this system is %s\n", line);
  }
  return kesa_pclose(stream) == 0 ? 0 : 1;
}
