// Builds the table of module names once. Programs may change it afterwards.
#include "libtirn/init/module_names.h"

#include <atomic>

#include "libtirn/base/bounds.h"
#include "libtirn/base/once.h"
#include "tirn/init.h"

using namespace tirn;

namespace {

constinit std::atomic<const char*> ModuleNameTable[TIRN_MODULE_COUNT];
constinit Once g_names_built;

// The name of an id that is out of range. All callers share it.
char g_overflow_name[10];

int build_names() {
  for (auto& name : ModuleNameTable) {
    if (name.load(std::memory_order_relaxed) == nullptr) {
      name.store("NONE", std::memory_order_relaxed);
    }
  }
  for (const auto& row : ModuleNameRows) {
    if (row.id < TIRN_MODULE_COUNT) {
      ModuleNameTable[row.id].store(row.name, std::memory_order_relaxed);
    }
  }
  return kOk;
}

}  // namespace

int pid_init_names() { return g_names_built.run(build_names, Once::Done::kOnSuccess, Once::LockFailure::kIsResult); }

// Clears the names only if they are not built: the done flag is tested as in pid_init_names, not the other way round.
// Built names outlive tear-down, because modules still log by name during and after it.
int pid_destroy_names() {
  const auto clear_names = [] {
    for (auto& name : ModuleNameTable) {
      name.store(nullptr, std::memory_order_relaxed);
    }
    return kOk;
  };
  return g_names_built.run(clear_names, Once::Done::kNever, Once::LockFailure::kIsResult);
}

const char* kesa_pid_get_name(uint32_t id) {
  pid_init_names();
  if (id < TIRN_MODULE_COUNT) {
    const char* const name = ModuleNameTable[id].load(std::memory_order_acquire);
    return name != nullptr ? name : "NONE";
  }
  sprintf_s(g_overflow_name, sizeof g_overflow_name, "<%u>", id & 0xFFFFu);
  return g_overflow_name;
}

void kesa_pid_set_name(uint32_t id, const char* name) {
  if (id >= TIRN_MODULE_COUNT || name == nullptr) {
    return;
  }
  pid_init_names();
  // Pairs with the acquire in kesa_pid_get_name, so that a reader of the name sees its text.
  ModuleNameTable[id].store(name, std::memory_order_release);
}
