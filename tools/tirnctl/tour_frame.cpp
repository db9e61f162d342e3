// The stops of the tour about start-up, memory, processors and private calls.
#include <sys/wait.h>
#include <tirn/tirn.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>

#include "tour.h"

namespace tirnctl {
namespace {

struct TimedStep {
  const char* name;
  int (*run)();
};

constexpr TimedStep kSteps[] = {
    {"kesa_glibc_init", kesa_glibc_init},
    {"jiffies_usr_main", jiffies_usr_main},
    {"jiffies_Init", jiffies_Init},
    {"pid_init_names", pid_init_names},
    {"kesa_sched_init", kesa_sched_init},
    {"cpumask_init", cpumask_init},
    {"globalCpuNum_init", globalCpuNum_init},
    {"kesa_gettime_init", kesa_gettime_init},
    {"kesa_affinity_init", kesa_affinity_init},
};

double microseconds_since(uint64_t start) { return static_cast<double>(now() - start) / 1000; }

int run_steps_alone() {
  for (const TimedStep& step : kSteps) {
    const uint64_t start = now();
    const int result = step.run();
    std::printf("    %-20s %8.1f us   result %d\n", step.name, microseconds_since(start), result);
  }
  std::fflush(stdout);
  return 0;
}

uint32_t timed_init(const char* name) {
  const uint64_t start = now();
  const uint32_t result = kesa_Init();
  std::printf("    %-20s %8.1f us   result %d\n", name, microseconds_since(start), static_cast<int>(result));
  return result;
}

void print_mask(const char* name, const kesa_cpumask* mask) {
  std::printf("    %-9s", name);
  for (int word = KESA_CPUMASK_WORDS - 1; word >= 0; --word) {
    std::printf(" %016" PRIx64, mask->bits[word]);
  }
  std::printf("   CPUs");
  for (uint32_t cpu = kesa_first_cpu(mask); cpu < KESA_CPU_MAX; cpu = kesa_next_cpu(cpu, mask)) {
    std::printf(" %u", cpu);
  }
  std::printf("\n");
}

}  // namespace

bool show_start_up() {
  std::fflush(stdout);
  const pid_t child = fork();
  if (child < 0) {
    return false;
  }
  if (child == 0) {
    _exit(run_steps_alone());
  }
  int status = 0;
  waitpid(child, &status, 0);
  std::printf("\n");
  const bool cold = timed_init("kesa_Init, cold") == 0;
  const bool warm = timed_init("kesa_Init, again") == 0;
  return status == 0 && cold && warm;
}

bool show_memory() {
  constexpr uint32_t kModules[] = {7, 42, TIRN_MODULE_ID};
  void* blocks[3];
  for (int i = 0; i < 3; ++i) {
    blocks[i] = kesa_malloc(kModules[i], 1000 * (i + 1));
    std::printf("    %d bytes for module %u, %s\n", 1000 * (i + 1), kModules[i], kesa_pid_get_name(kModules[i]));
  }
  std::printf("\n");
  kesa_mem_show(std::printf);
  for (void* block : blocks) {
    kesa_free(block);
  }
  std::printf("\n    and after they are freed:\n\n");
  kesa_mem_show(std::printf);
  return true;
}

bool show_cpus() {
  print_mask("possible", cpu_possible_mask);
  print_mask("online", cpu_online_mask);
  print_mask("present", cpu_present_mask);
  std::printf("    %u online, %u configured\n", num_online_cpus(), num_config_cpus());
  return num_online_cpus() != 0;
}

bool show_private_call() {
  constexpr uint64_t kDumpMemory = 0x402;
  void* const block = kesa_malloc(42, 4242);
  std::printf("    kesa_mem_stat_dump asks the kernel side for its view of the counts: command word 0x%" PRIx64 "\n",
              uint64_t{TIRN_MODULE_ID} << 32 | kDumpMemory);
  std::fflush(stdout);
  const int result = kesa_mem_stat_dump();
  std::printf("    result %d\n", result);
  kesa_free(block);
  return result == 0;
}

}  // namespace tirnctl
