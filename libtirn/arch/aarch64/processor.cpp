// AArch64: the counter's frequency, the processor's model and the registers of interrupted code.
#include "libtirn/arch/arch.h"

namespace tirn::arch {

uint64_t counter_frequency() {
  uint64_t hertz;
  asm volatile("mrs %0, cntfrq_el0" : "=r"(hertz));
  return hertz;
}

// The kernel emulates this register for user space.
uint64_t cpu_identification() {
  uint64_t midr;
  asm volatile("mrs %0, midr_el1" : "=r"(midr));
  return midr;
}

Registers registers_of(const ucontext_t& context) {
  const mcontext_t& machine = context.uc_mcontext;
  Registers registers{};
  for (size_t i = 0; i < 31; ++i) {
    registers.general[i] = machine.regs[i];
  }
  registers.sp = machine.sp;
  registers.fp = machine.regs[29];
  registers.pc = machine.pc;
  registers.state = machine.pstate;
  return registers;
}

}  // namespace tirn::arch
