// x86-64: the processor's model and the registers of interrupted code.
#include <cpuid.h>

#include "libtirn/arch/arch.h"

namespace tirn::arch {

uint64_t cpu_identification() {
  unsigned a = 0, b = 0, c = 0, d = 0;
  __get_cpuid(1, &a, &b, &c, &d);
  return a;
}

Registers registers_of(const ucontext_t& context) {
  static constexpr int kGeneral[] = {REG_RAX, REG_RBX, REG_RCX, REG_RDX, REG_RSI, REG_RDI, REG_RBP, REG_RSP,
                                     REG_R8,  REG_R9,  REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15};
  const auto& machine = context.uc_mcontext.gregs;
  Registers registers{};
  for (size_t i = 0; i < sizeof kGeneral / sizeof kGeneral[0]; ++i) {
    registers.general[i] = static_cast<uint64_t>(machine[kGeneral[i]]);
  }
  registers.sp = static_cast<uint64_t>(machine[REG_RSP]);
  registers.fp = static_cast<uint64_t>(machine[REG_RBP]);
  registers.pc = static_cast<uint64_t>(machine[REG_RIP]);
  registers.state = static_cast<uint64_t>(machine[REG_EFL]);
  return registers;
}

}  // namespace tirn::arch
