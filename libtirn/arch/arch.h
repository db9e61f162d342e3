// The interface to the processor: only the folders below it, one for each processor, know which one it is.
#ifndef TIRN_ARCH_ARCH_H
#define TIRN_ARCH_ARCH_H

#include <ucontext.h>

#include <cstddef>
#include <cstdint>

#if defined(__aarch64__)
#include "libtirn/arch/aarch64/counter.h"
#elif defined(__x86_64__)
#include "libtirn/arch/x86_64/counter.h"
#else
#error "No such processor under libtirn/arch"
#endif

namespace tirn::arch {

// Reads the free-running counter, without a barrier. May be called anywhere, also before any set-up. The frequency
// divides 10^9 on x86-64; on AArch64 it is what the machine reports.
inline uint64_t counter_read();
uint64_t counter_frequency();

// Returns what identifies the processor's model: MIDR_EL1, or the signature of CPUID leaf 1.
uint64_t cpu_identification();

// The registers of interrupted code, in the form that fault reports show: 31 general registers (those that a
// processor does not have are 0), stack pointer, frame pointer, program counter and state.
struct Registers {
  uint64_t general[31];
  uint64_t sp;
  uint64_t fp;
  uint64_t pc;
  uint64_t state;
};
Registers registers_of(const ucontext_t& context);

// Gives the processor its hint for a loop that waits for another processor.
inline void spin_hint();

// Prefetches a cache line that is read now and written at once. The cache line is then fetched from another processor
// once, not twice.
inline void fetch_to_write(const void* bytes);

// The frame pointer of the function that uses this macro.
#define TIRN_FRAME_POINTER() (reinterpret_cast<uintptr_t>(__builtin_frame_address(0)))

// Returns how many of the first `words` 64-bit words at `bytes` (of any alignment) equal `value`, up to the first
// that does not. `value` is 0 or all ones.
size_t equal_words(const uint8_t* bytes, size_t words, uint64_t value);

}  // namespace tirn::arch

#endif
