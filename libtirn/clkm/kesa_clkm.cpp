// Implements the clock tree of tirn/clkm.h.
#include "tirn/clkm.h"

#include "libtirn/base/bounds.h"
#include "libtirn/base/list.h"
#include "libtirn/base/result.h"

using namespace tirn;

namespace {

constexpr uint32_t kResets = CLKM_RESET | CLKM_DELAY_RESET;

static_assert(offsetof(clkm_module, nextTick) == 8 && offsetof(clkm_module, period) == 16 &&
              offsetof(clkm_module, flags) == 20 && offsetof(clkm_module, sibling) == 40 &&
              offsetof(clkm_module, children) == 24 && offsetof(clkm_module, handler) == 56 &&
              offsetof(clkm_module, name) == 72 && offsetof(clkm_module, history) == 104 &&
              sizeof(clkm_module) == 120);

template <typename Visit>
void for_each_child(const clkm_module& module, Visit visit) {
  for (kesa_list_head* link = module.children.next; link != &module.children; link = link->next) {
    visit(*reinterpret_cast<clkm_module*>(reinterpret_cast<char*>(link) - offsetof(clkm_module, sibling)));
  }
}

// Calls `visit` for the module and all modules below, parents before children.
template <typename Visit>
void for_each_module(clkm_module& module, const Visit& visit) {
  visit(module);
  for_each_child(module, [&visit](clkm_module& child) { for_each_module(child, visit); });
}

// Starts or ends a pause if the flags ask for it. Returns whether the module stands still.
bool stands_still(clkm_module& module, uint64_t tick) {
  switch (module.flags & (CLKM_DISABLE | CLKM_PAUSED)) {
    case CLKM_DISABLE:
      module.flags |= CLKM_PAUSED;
      module.nextTick -= tick;
      return true;
    case CLKM_DISABLE | CLKM_PAUSED:
      return true;
    case CLKM_PAUSED:
      module.flags &= ~CLKM_PAUSED;
      module.nextTick += tick;
      return false;
    default:
      return false;
  }
}

// `tick` is the value of the module's clock, `inherited` the code that the parent fired with.
void run_pass(clkm_module& module, uint64_t tick, uint32_t inherited) {
  if (stands_still(module, tick)) {
    return;
  }
  const uint32_t reset = (module.flags & CLKM_RESET) | inherited;
  if (tick != module.nextTick && reset == 0) {
    return;
  }
  const uint32_t code = (module.flags & CLKM_DELAY_RESET) | reset;
  if (code == 0) {
    ++module.count;
  } else {
    module.count = 0;
    module.flags &= ~kResets;
  }
  module.nextTick = tick + module.period;
  // The handler may change the flags and `nextTick` of its own module.
  const int32_t result = module.handler(tick, code, module.arg);
  module.flags |= CLKM_FIRED;
  if (result == CLKM_SKIP_CHILDREN) {
    return;
  }
  for_each_child(module, [&module, code](clkm_module& child) { run_pass(child, module.count, code); });
}

uint8_t& history_byte(clkm_module& module, uint64_t step) { return module.history[step % CLKM_HISTORY_BITS / 8]; }

uint8_t history_mask(uint64_t step) { return static_cast<uint8_t>(1u << step % 8); }

// Sets and clears flags of the module and delays its next firing. Shared by the functions that only do one of these.
int change(clkm_module* module, uint32_t set, uint32_t cleared, uint64_t delta) {
  if (module == nullptr) {
    return kFail;
  }
  module->flags = (module->flags | set) & ~cleared;
  module->nextTick += delta;
  return kOk;
}

}  // namespace

int clkm_init(clkm_module* module, clkm_handler_fn handler, void* arg, const char* name) {
  if (module == nullptr || handler == nullptr) {
    return kFail;
  }
  *module = {};
  module->nextTick = 1;
  module->period = 1;
  list::init(&module->children);
  list::init(&module->sibling);
  module->handler = handler;
  module->arg = arg;
  strncpy_s(module->name, sizeof module->name, name != nullptr ? name : "NULL", sizeof module->name - 1);
  return kOk;
}

int clkm_reg_child_module(clkm_module* parent, clkm_module* child, uint32_t period) {
  if (parent == nullptr || child == nullptr) {
    return kFail;
  }
  list::push_back(&parent->children, &child->sibling);
  child->nextTick = period;
  child->period = period;
  return kOk;
}

int clkm_test_bit(uint32_t bit, const uint8_t* bytes) { return (bytes[bit / 8] >> (bit % 8)) & 1; }

int clkm_clk_delay(clkm_module* module, uint64_t delta) { return change(module, 0, 0, delta); }

int clkm_clk_delay_and_reset(clkm_module* module, uint64_t delta) {
  return change(module, CLKM_DELAY_RESET, 0, delta);
}

int clkm_reset(clkm_module* module) { return change(module, CLKM_RESET, 0, 0); }

int clkm_disable(clkm_module* module) { return change(module, CLKM_DISABLE, 0, 0); }

int clkm_enable(clkm_module* module) { return change(module, 0, CLKM_DISABLE, 0); }

int clkm_run(clkm_module* module) {
  if (module == nullptr) {
    return kFail;
  }
  run_pass(*module, module->nextTick, 0);
  return kOk;
}

int clkm_run_simu(clkm_module* module, uint64_t step) {
  if (module == nullptr) {
    return kFail;
  }
  for_each_module(*module, [step](clkm_module& each) {
    history_byte(each, step + 1) &= static_cast<uint8_t>(~history_mask(step + 1));
  });
  run_pass(*module, module->nextTick, 0);
  for_each_module(*module, [step](clkm_module& each) {
    if ((each.flags & CLKM_FIRED) != 0) {
      each.flags &= ~CLKM_FIRED;
      history_byte(each, step) |= history_mask(step);
    }
  });
  return kOk;
}

int clkm_show_simu(clkm_module* module, uint64_t step, kesa_print_fn print) {
  if (module == nullptr || print == nullptr) {
    return kFail;
  }
  for_each_module(*module, [step, print](const clkm_module& each) {
    print("%-16s: ", each.name);
    for (uint32_t i = 0; i < CLKM_HISTORY_BITS; ++i) {
      const char fired = clkm_test_bit(i, each.history) != 0 ? '+' : '-';
      print("%c", i == step % CLKM_HISTORY_BITS ? '*' : fired);
    }
    print("\n");
  });
  return kOk;
}
