/* Lists the online processors. */
#include <stdio.h>
#include <tirn/cpumask.h>
#include <tirn/smp.h>

int main(void) {
  if (cpumask_init() != 0) {
    return 1;
  }
  printf("%u of %u CPUs are online:", num_online_cpus(), num_config_cpus());
  for (uint32_t cpu = kesa_first_cpu(cpu_online_mask); cpu < KESA_CPU_MAX;
       cpu = kesa_next_cpu(cpu, cpu_online_mask)) {
    printf(" %u", cpu);
  }
  printf("\n");
  return 0;
}
