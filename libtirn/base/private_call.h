// Private calls to the kernel side: the list of all commands, and the call itself.
#ifndef TIRN_BASE_PRIVATE_CALL_H
#define TIRN_BASE_PRIVATE_CALL_H

#include <cstdint>

#include "kernel/kernel.h"
#include "tirn/base.h"

namespace tirn {

enum class PrivateCommand : uint32_t {
  kResetLocalBoard = 0x000,
  kReboot = 0x001,
  kRebootCount = 0x002,
  kPanic = 0x003,
  kLocalTime = 0x100,
  kLocalFromUtc = 0x101,
  kTime = 0x102,
  kDstFromUtc = 0x103,
  kDstTime = 0x104,
  kStartGettyQuery = 0x200,
  kStopGettyQuery = 0x201,
  kTtyPrintOn = 0x202,
  kTtyPrintOff = 0x203,
  kCpufreqLowAll = 0x300,
  kCpufreqHighAll = 0x301,
  kCpufreqStepUpAll = 0x302,
  kCpufreqStepDownAll = 0x303,
  kLocalCpufreq = 0x304,
  kGetIdleNoCstates = 0x305,
  kSetIdleNoCstates = 0x306,
  kCpuTaskInfo = 0x307,
  kFreeMemory = 0x400,
  kMemoryTable = 0x401,
  kMemoryDump = 0x402,
  kThreadRegisters = 0x500,
  kThreadStatus = 0x701,
  kDumpCpuStackKernel = 0x702,
  kDumpCpuStack = 0x703,
  kDumpIdleThreadStack = 0x704,
  kWait = 0x800,
};

// Converts an argument for the call: a pointer becomes its address, a number is widened.
inline uint64_t private_argument(const volatile void* pointer) { return reinterpret_cast<uintptr_t>(pointer); }
inline uint64_t private_argument(uint64_t number) { return number; }

// Makes a private call. The high half of the command word is the module id; arguments that are not given are all
// ones. Returns the command's result, or -1 with errno set.
template <typename... Arguments>
long private_call(PrivateCommand command, Arguments... arguments) {
  const uint64_t word = uint64_t{TIRN_MODULE_ID} << 32 | static_cast<uint32_t>(command);
  return kernel::private_call(word, private_argument(arguments)...);
}

}  // namespace tirn

#endif
