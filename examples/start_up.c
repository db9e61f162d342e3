/* Opens the log, starts the library, names a module, reads the clocks, and stops the library. */
#include <hurn.h>
#include <stdio.h>
#include <tirn/tirn.h>

int main(void) {
  kesa_log_init("start_up", "stderr");
  if (kesa_Init() != 0) {
    fprintf(stderr, "the library did not start; the log tells why\n");
    return 1;
  }
  kesa_pid_set_name(42, "EXAMPLE");
  printf("module 42 is %s, module %u is %s\n", kesa_pid_get_name(42), TIRN_MODULE_ID,
         kesa_pid_get_name(TIRN_MODULE_ID));
  printf("jiffies %llu, %llu ms since the counter's origin\n", (unsigned long long)kesa_get_jiffies(),
         (unsigned long long)kesa_time_getmillisec());
  return kesa_destory();
}
