/* Run commands through the screened door to the shell: one that is refused, one that runs, one whose output is read. */
#include <stdio.h>
#include <sys/wait.h>
#include <tirn/str.h>

int main(void) {
  char line[64];
  FILE* stream;
  int status;
  /* A name that came from elsewhere; "|" is all that this command itself needs. */
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
