/*
 * A tree of software clocks, like the dividers of a hardware clock tree. A module counts its own firings, and this
 * count is the clock of its children: a child of period 3 fires at every third firing of its parent. The library
 * supplies no time: the caller runs the root, at a rate of its choice.
 *
 *   clkm_init(&root, on_root, NULL, "root");
 *   clkm_init(&child, on_child, NULL, "child");
 *   clkm_reg_child_module(&root, &child, 3);
 *   for (;;) {
 *     clkm_run(&root);
 *     kesa_msleep(10);
 *   }
 *
 * A module fires only when its parent's count equals its `nextTick` exactly. If that value was skipped, the module
 * stays silent until a reset or a delay.
 *
 * A tree belongs to one thread at a time. Nothing is locked, allocated or logged. The records are the caller's, and
 * must stay as long as the tree is used: a module cannot leave its tree. Functions that walk a tree are recursive:
 * they are as many calls deep as the tree has levels, and the stack must have room for about 100 bytes a level in an
 * optimised build.
 *
 * A handler may call clkm_clk_delay, clkm_clk_delay_and_reset, clkm_reset, clkm_disable and clkm_enable for any
 * module of its tree. The change takes effect in the same pass if the pass has not reached that module yet, otherwise
 * in the next one. A handler must not initialise, register or run a module of its own tree, because the pass is
 * walking the lists of children. With a tree that is not in a pass it may do anything. A handler that ends its thread
 * also ends the pass; the tree stays usable.
 */
#ifndef TIRN_CLKM_H
#define TIRN_CLKM_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* The flags of a module. The two reset bits are also the code that its handler receives. */
#define CLKM_RESET 1u       /* reset in the next pass, even if the module is not due */
#define CLKM_DELAY_RESET 2u /* reset at the next firing */
#define CLKM_DISABLE 4u     /* pause at the next pass */
#define CLKM_PAUSED 8u      /* paused: `nextTick` is the distance left */
#define CLKM_FIRED 16u      /* its handler has run; cleared by clkm_run_simu only */

/* The result of a handler that keeps the pass from the module's children. */
#define CLKM_SKIP_CHILDREN 1

#define CLKM_NAME_SIZE 32u
#define CLKM_HISTORY_BITS 128u

/*
 * Called when the module fires. `tick` is the value of its clock. `code` is 0 for an ordinary firing, otherwise the
 * reset bits: the module's own and those that came down from its parent.
 * @returns CLKM_SKIP_CHILDREN, or any other value to go on with the children.
 */
typedef int32_t (*clkm_handler_fn)(uint64_t tick, uint32_t code, void* arg);

struct clkm_module {
  uint64_t count;    /* firings since the last reset; the clock of the children */
  uint64_t nextTick; /* the value of its clock at which the module fires next; while paused, the distance left */
  uint32_t period;   /* values of its clock between two firings */
  uint32_t flags;
  struct kesa_list_head children; /* in order of registration */
  struct kesa_list_head sibling;  /* among the children of its parent; points to itself before registration */
  clkm_handler_fn handler;
  void* arg;
  char name[CLKM_NAME_SIZE];
  uint8_t history[CLKM_HISTORY_BITS / 8]; /* bit `step` modulo 128 is set if the module fired in that step */
};

/*
 * Makes the record a module without children, with period 1, that is first due at 1. A module that is in a tree must
 * not be initialised again. The name is cut after 31 characters; NULL stands for "NULL".
 * @returns 0, or -1 for a NULL module or handler.
 * @safety MT-Unsafe race:module, AS-Safe
 */
TIRN_API int clkm_init(struct clkm_module* module, clkm_handler_fn handler, void* arg, const char* name);

/*
 * Appends `child`, an initialised module that has no parent yet, to the children of `parent`. It must not be `parent`
 * or a module above it. The child is first due when the parent's count equals `period`. If the count has already
 * passed that value, the child stays silent until it is reset, or delayed beyond the count. A child of period 0 fires
 * at resets only, and once after each delay.
 * @returns 0, or -1 for a NULL module.
 * @safety MT-Unsafe race:parent, AS-Safe
 */
TIRN_API int clkm_reg_child_module(struct clkm_module* parent, struct clkm_module* child, uint32_t period);

/*
 * Reads a bit of a bit array, such as `history`: bit `bit` % 8 of byte `bit` / 8. The array must have more than
 * `bit` / 8 bytes, since nothing is checked; `history` has 128 bits.
 * @returns the bit, 0 or 1.
 * @safety MT-Safe race:bytes, AS-Safe
 */
TIRN_API int clkm_test_bit(uint32_t bit, const uint8_t* bytes);

/*
 * Delays the next firing by `delta` values of the module's clock. If the module is paused, the distance left grows.
 * For the root, which is due in each pass, the `tick` that its handler receives jumps ahead; its count does not.
 * @returns 0, or -1 for a NULL module.
 * @safety MT-Unsafe race:module, AS-Safe
 */
TIRN_API int clkm_clk_delay(struct clkm_module* module, uint64_t delta);

/*
 * Delays the next firing as clkm_clk_delay does, and makes it a reset: `count` starts again at 0, and the handler and
 * those of all modules below that are not paused or skipped are called with CLKM_DELAY_RESET. An earlier reset counts
 * as this one.
 * @returns 0, or -1 for a NULL module.
 * @safety MT-Unsafe race:module, AS-Safe
 */
TIRN_API int clkm_clk_delay_and_reset(struct clkm_module* module, uint64_t delta);

/*
 * Resets the module and all modules below in the next pass that reaches it, whether they are due or not: `count`
 * starts again at 0, and the handlers are called with CLKM_RESET. The module is next due one period later, the
 * modules below after one period from clock 0. The reset does not reach modules that are paused or skipped.
 * @returns 0, or -1 for a NULL module.
 * @safety MT-Unsafe race:module, AS-Safe
 */
TIRN_API int clkm_reset(struct clkm_module* module);

/*
 * Pauses the module from the next pass on that reaches it. The module keeps its distance from the next firing, and
 * passes do not reach the modules below.
 * @returns 0, or -1 for a NULL module.
 * @safety MT-Unsafe race:module, AS-Safe
 */
TIRN_API int clkm_disable(struct clkm_module* module);

/*
 * Ends the pause. In the next pass the module takes up its distance from the clock of that pass. A root fires at
 * once, with clock 0; if it was delayed by d while paused, the first pass does not fire and the second fires at clock
 * 2 d.
 * @returns 0, or -1 for a NULL module.
 * @safety MT-Unsafe race:module, AS-Safe
 */
TIRN_API int clkm_enable(struct clkm_module* module);

/*
 * Makes one pass over the module and all modules below, parents before children. The clock of the module itself is
 * its `nextTick`, so that it always fires unless it is disabled; see also clkm_enable. The module is normally the
 * root: another one falls out of step with its parent.
 * @returns 0, or -1 for a NULL module.
 * @safety MT-Unsafe race:module, AS-Safe (as the handlers)
 */
TIRN_API int clkm_run(struct clkm_module* module);

/*
 * Makes one pass as clkm_run does, and sets the bit `step` modulo 128 of the `history` of each module that has fired
 * since the last simulated step. The bit after it is cleared, as the gap between the newest step and the oldest, so
 * steps must be consecutive: otherwise old bits remain.
 * @returns 0, or -1 for a NULL module.
 * @safety MT-Unsafe race:module, AS-Safe (as the handlers)
 */
TIRN_API int clkm_run_simu(struct clkm_module* module, uint64_t step);

/*
 * Prints a text line for the module and each one below: the name, and a character for each of the 128 positions of
 * `history`. That is '+' where the module fired and '-' where it did not; '*' marks the position of `step`,
 * whether or not the module fired then.
 * @returns 0, or -1 for a NULL module or print function.
 * @safety MT-Unsafe race:module, AS-Safe (as the print function)
 */
TIRN_API int clkm_show_simu(struct clkm_module* module, uint64_t step, kesa_print_fn print);

TIRN_EXTERN_C_END

#endif
