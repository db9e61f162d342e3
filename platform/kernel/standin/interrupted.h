// Reads the registers of code that a signal has interrupted. Nothing else in the stand-in depends on the processor.
#ifndef ZUT_INTERRUPTED_H
#define ZUT_INTERRUPTED_H

#include <ucontext.h>

#include <cstdint>

namespace zut {

struct Registers {
  uint64_t stack, frame, program_counter;
};

inline Registers interrupted_registers(const void* context) {
  const mcontext_t& machine = static_cast<const ucontext_t*>(context)->uc_mcontext;
#if defined(__aarch64__)
  return {machine.sp, machine.regs[29], machine.pc};
#elif defined(__x86_64__)
  return {static_cast<uint64_t>(machine.gregs[REG_RSP]), static_cast<uint64_t>(machine.gregs[REG_RBP]),
          static_cast<uint64_t>(machine.gregs[REG_RIP])};
#else
#error "libzut does not know where this processor keeps its registers"
#endif
}

}  // namespace zut

#endif
