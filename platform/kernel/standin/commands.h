// Declares the private commands, and how they reach their callers' memory.
#ifndef ZUT_COMMANDS_H
#define ZUT_COMMANDS_H

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "hurn.h"

namespace zut {

inline constexpr uint32_t kModule = 381;
inline constexpr uint32_t kCommandLimit = 0x900;

struct Call {
  uint64_t word, a, b, c, d;
  uint32_t command() const { return static_cast<uint32_t>(word); }
};

using Command = long (*)(const Call&);

inline long fail(int error) {
  errno = error;
  return -1;
}

// Returns whether the caller passed an address. In an unused argument all bits are ones.
inline bool given(uint64_t address) { return address != 0 && address != ~uint64_t{0}; }

inline void* pointer(uint64_t address) { return reinterpret_cast<void*>(static_cast<uintptr_t>(address)); }

// Copies bytes, because addresses from callers need not be aligned.
template <typename T>
T load(uint64_t address) {
  T value;
  memcpy(&value, pointer(address), sizeof(value));
  return value;
}

template <typename T>
long store(uint64_t address, T value) {
  if (!given(address)) {
    return fail(EFAULT);
  }
  memcpy(pointer(address), &value, sizeof(value));
  return 0;
}

#define ZUT_PRINT(...) hurn(zut::kModule, HURN_INFO, "standin", __LINE__, __func__, 0, __VA_ARGS__)

inline constexpr uint32_t kMostCpus = 1024;

// Returns the number of CPUs that a command may name, at most kMostCpus.
uint32_t cpu_count();

// takedown.cpp
long refuse_takedown(const Call&);
long reboot_count(const Call&);
// clock.cpp
long zone_time_now(const Call&);
long zone_time_of(const Call&);
long utc_now(const Call&);
// machine.cpp
long switch_console(const Call&);
long change_frequency(const Call&);
long read_frequency(const Call&);
long read_idle(const Call&);
long set_idle(const Call&);
// memory.cpp
long free_memory(const Call&);
long counter_table(const Call&);
long print_counters(const Call&);
// registers.cpp
long thread_registers(const Call&);
// threads.cpp
long count_cpu_threads(const Call&);
long print_thread(const Call&);
long print_cpu(const Call&);
long print_sleeping_thread(const Call&);
// wait.cpp
long wait_while_set(const Call&);

}  // namespace zut

#endif
