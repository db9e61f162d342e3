// The private calls of the kernel side: the one list of commands, and the call.
#ifndef TIRN_BASE_PRIVATE_CALL_H
#define TIRN_BASE_PRIVATE_CALL_H

#include <cstdint>

#include "kernel/kernel.h"
#include "tirn/base.h"

namespace tirn {

enum class PrivateCommand : uint32_t {
  reset_local_board = 0x000,
  reboot = 0x001,
  reboot_count = 0x002,
  panic = 0x003,
  local_time = 0x100,
  local_from_utc = 0x101,
  time = 0x102,
  dst_from_utc = 0x103,
  dst_time = 0x104,
  start_getty_query = 0x200,
  stop_getty_query = 0x201,
  tty_print_on = 0x202,
  tty_print_off = 0x203,
  cpufreq_low_all = 0x300,
  cpufreq_high_all = 0x301,
  cpufreq_step_up_all = 0x302,
  cpufreq_step_down_all = 0x303,
  local_cpufreq = 0x304,
  get_idle_no_cstates = 0x305,
  set_idle_no_cstates = 0x306,
  cpu_task_info = 0x307,
  free_memory = 0x400,
  memory_table = 0x401,
  memory_dump = 0x402,
  thread_registers = 0x500,
  thread_status = 0x701,
  dump_cpu_stack_kernel = 0x702,
  dump_cpu_stack = 0x703,
  dump_idle_thread_stack = 0x704,
  wait = 0x800,
};

// An argument as the call carries it: pointers by address, numbers widened.
inline uint64_t private_argument(const volatile void* pointer) {
  return reinterpret_cast<uintptr_t>(pointer);
}
inline uint64_t private_argument(uint64_t number) {
  return number;
}

// The module id stands in the high half of the command word; arguments that are not given are all ones. The command's
// result, or -1 with errno.
template <typename... Arguments>
long private_call(PrivateCommand command, Arguments... arguments) {
  const uint64_t word = uint64_t{TIRN_MODULE_ID} << 32 | static_cast<uint32_t>(command);
  return kernel::private_call(word, private_argument(arguments)...);
}

}  // namespace tirn

#endif
