// The main function of every test program, and the sanitizers' default options, which the environment can override.
#include <gtest/gtest.h>

// Some tests check that a process dies by a signal, so the sanitizers must not handle these signals.
#define SIGNALS_STAY "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:handle_abort=0"

extern "C" {
#define OPTIONS __attribute__((visibility("default"), no_sanitize("address", "thread", "undefined")))
OPTIONS const char* __asan_default_options() { return SIGNALS_STAY ":detect_leaks=1:allocator_may_return_null=1"; }
OPTIONS const char* __tsan_default_options() {
  return SIGNALS_STAY ":die_after_fork=0:halt_on_error=1:second_deadlock_stack=1:allocator_may_return_null=1";
}
OPTIONS const char* __ubsan_default_options() { return "print_stacktrace=1"; }
}

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
