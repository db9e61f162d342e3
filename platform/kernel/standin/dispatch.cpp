// Passes each private call to the function that serves it, and counts the calls.
#include <atomic>

#include "commands.h"
#include "uncancelled.h"
#include "zut.h"

namespace zut {
namespace {

struct Row {
  uint32_t number;
  Command serve;
};

constexpr Row kRows[] = {
    {0x000, refuse_takedown},        // reset
    {0x001, refuse_takedown},        // reboot
    {0x002, reboot_count},           //
    {0x003, refuse_takedown},        // panic
    {0x100, zone_time_now},          // local
    {0x101, zone_time_of},           // local
    {0x102, utc_now},                //
    {0x103, zone_time_of},           // with daylight saving
    {0x104, zone_time_now},          // with daylight saving
    {0x200, switch_console},         // getty query on
    {0x201, switch_console},         // off
    {0x202, switch_console},         // printing on
    {0x203, switch_console},         // off
    {0x300, change_frequency},       // lowest
    {0x301, change_frequency},       // highest
    {0x302, change_frequency},       // a step up
    {0x303, change_frequency},       // a step down
    {0x304, read_frequency},         //
    {0x305, read_idle},              //
    {0x306, set_idle},               //
    {0x307, count_cpu_threads},      //
    {0x400, free_memory},            //
    {0x401, counter_table},          //
    {0x402, print_counters},         //
    {0x500, thread_registers},       //
    {0x701, print_thread},           //
    {0x702, print_cpu},              // its stack in the kernel
    {0x703, print_cpu},              // its current thread's stack
    {0x704, print_sleeping_thread},  //
    {0x800, wait_while_set},         //
};

struct Record {
  std::atomic<zut_handler> replacement{nullptr};
  std::atomic<uint64_t> calls{0};
  std::atomic<uint64_t> last_word{0};
};
constinit Record records[kCommandLimit];

long serve(const Call& call) {
  for (const Row& row : kRows) {
    if (row.number == call.command()) {
      return row.serve(call);
    }
  }
  return fail(ENOSYS);
}

}  // namespace
}  // namespace zut

long zut_private_call(uint64_t word, uint64_t a, uint64_t b, uint64_t c, uint64_t d) {
  const zut::Uncancelled guard;
  const zut::Call call{word, a, b, c, d};
  if (word >> 32 != zut::kModule) {
    return zut::fail(EINVAL);
  }
  if (call.command() >= zut::kCommandLimit) {
    return zut::fail(ENOSYS);
  }
  zut::Record& record = zut::records[call.command()];
  record.calls.fetch_add(1, std::memory_order_relaxed);
  record.last_word.store(word, std::memory_order_relaxed);
  const zut_handler replacement = record.replacement.load(std::memory_order_acquire);
  return replacement != nullptr ? replacement(word, a, b, c, d) : zut::serve(call);
}

int zut_replace(uint32_t command, zut_handler handler) {
  if (command >= zut::kCommandLimit) {
    return static_cast<int>(zut::fail(EINVAL));
  }
  // Release: publishes what the test prepared for its handler. Pairs with the load in zut_private_call.
  zut::records[command].replacement.store(handler, std::memory_order_release);
  return 0;
}

uint64_t zut_call_count(uint32_t command) {
  return command < zut::kCommandLimit ? zut::records[command].calls.load(std::memory_order_relaxed) : 0;
}

uint64_t zut_last_word(uint32_t command) {
  return command < zut::kCommandLimit ? zut::records[command].last_word.load(std::memory_order_relaxed) : 0;
}
