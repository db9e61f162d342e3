// The commands for console, frequency and idle settings, which are stored but have no effect on the machine.
#include <algorithm>
#include <atomic>
#include <iterator>

#include "commands.h"
#include "zut.h"

namespace zut {
namespace {

constexpr uint32_t kFrequencies[] = {1'200'000, 1'600'000, 2'000'000, 2'400'000, 2'600'000};  // kHz
constexpr uint32_t kHighest = std::size(kFrequencies) - 1;

constinit std::atomic<bool> getty_query{false};
constinit std::atomic<bool> printing{true};
constinit std::atomic<uint32_t> frequency_step{kHighest};
constinit std::atomic<uint32_t> idle_settings[kMostCpus]{};

}  // namespace

long switch_console(const Call& call) {
  const uint32_t which = call.command() & 0xF;
  (which < 2 ? getty_query : printing) = which % 2 == 0;
  return 0;
}

long change_frequency(const Call& call) {
  if (!given(call.a)) {
    return fail(EFAULT);
  }
  uint32_t now = frequency_step;
  uint32_t next;
  do {
    const uint32_t by_command[] = {0, kHighest, std::min(now + 1, kHighest), now - (now > 0)};
    next = by_command[call.command() & 0xF];
  } while (!frequency_step.compare_exchange_weak(now, next));
  return store(call.a, next);
}

long read_frequency(const Call& call) { return store(call.a, kFrequencies[frequency_step]); }

long read_idle(const Call& call) {
  return call.a < cpu_count() ? store<uint32_t>(call.b, idle_settings[call.a]) : fail(EINVAL);
}

long set_idle(const Call& call) {
  if (call.a >= cpu_count()) {
    return fail(EINVAL);
  }
  if (!given(call.b)) {
    return fail(EFAULT);
  }
  idle_settings[call.a] = load<uint32_t>(call.b);
  return 0;
}

}  // namespace zut

void zut_console(int* getty_query, int* printing) {
  *getty_query = zut::getty_query;
  *printing = zut::printing;
}
