// The command that reads the registers of a thread: a signal stops the thread, and its handler stores them.
#include <signal.h>
#include <sys/syscall.h>

#include <mutex>

#include "commands.h"
#include "futex.h"
#include "interrupted.h"

namespace zut {
namespace {

constexpr int64_t kPatience = 2 * kSecond;
constexpr uint64_t kThreadLimit = uint64_t{1} << 29;

// A request contains its thread in the bits above the phase. An answer that comes after its caller has given up is
// therefore never taken for that of another thread.
enum Phase : uint32_t { kIdle, kAsked, kAnswering, kAnswered };
constexpr uint32_t request_of(pid_t thread, Phase phase) { return static_cast<uint32_t>(thread) * 4 + phase; }

constinit ProcessLock asking;  // one caller at a time
constinit std::atomic<uint32_t> request{kIdle};
constinit Registers answer{};  // the stopped thread writes it in kAnswering, the caller reads it in kAnswered

// Runs as a signal handler at any point of the stopped thread: it neither locks nor allocates, and keeps errno.
void answer_request(int, siginfo_t*, void* context) {
  const int kept = errno;
  const pid_t self = static_cast<pid_t>(syscall(SYS_gettid));
  uint32_t expected = request_of(self, kAsked);
  if (request.compare_exchange_strong(expected, request_of(self, kAnswering), std::memory_order_acquire)) {
    answer = interrupted_registers(context);
    // Release: publishes the answer. Pairs with the load in await_answer.
    request.store(request_of(self, kAnswered), std::memory_order_release);
    futex_wake(&request);
  }
  errno = kept;
}

// Returns the stand-in's own signal, or 0 if there is none: the highest one below 59 that the program does not use.
// The signals from 59 on are left to the node.
int own_signal() {
  constexpr int kHighest = 58;
  for (int number = kHighest; number >= SIGRTMIN; --number) {
    struct sigaction present;
    if (sigaction(number, nullptr, &present) != 0) {
      continue;
    }
    if ((present.sa_flags & SA_SIGINFO) != 0 && present.sa_sigaction == answer_request) {
      return number;
    }
    if ((present.sa_flags & SA_SIGINFO) == 0 && present.sa_handler == SIG_DFL) {
      struct sigaction own {};
      own.sa_sigaction = answer_request;
      own.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
      sigfillset(&own.sa_mask);
      if (sigaction(number, &own, nullptr) == 0) {
        return number;
      }
    }
  }
  return 0;
}

bool lives(pid_t thread) { return syscall(SYS_tgkill, getpid(), thread, 0) == 0; }

// Waits for the answer. Returns 0, or an error; after that, nobody answers the request any more. A signal to a thread
// that ends is lost, so each round tests whether the thread still exists.
int await_answer(pid_t thread) {
  constexpr int64_t kGlance = kSecond / 50;
  const int64_t deadline = monotonic_now() + kPatience;
  for (;;) {
    uint32_t seen = request.load(std::memory_order_acquire);
    if (seen == request_of(thread, kAnswered)) {
      return 0;
    }
    const bool alive = lives(thread);
    const int64_t now = monotonic_now();
    if ((!alive || now >= deadline) && seen == request_of(thread, kAsked) &&
        request.compare_exchange_strong(seen, kIdle)) {
      return alive ? ETIMEDOUT : ESRCH;
    }
    futex_wait(&request, seen, now + kGlance);
  }
}

int ask(pid_t thread, Registers* registers) {
  const std::lock_guard guard(asking);
  const int signal = own_signal();
  if (signal == 0) {
    return EBUSY;
  }
  // Release: pairs with the exchange in answer_request.
  request.store(request_of(thread, kAsked), std::memory_order_release);
  if (syscall(SYS_tgkill, getpid(), thread, signal) != 0) {
    const int error = errno;
    request.store(kIdle);
    return error;
  }
  const int error = await_answer(thread);
  if (error == 0) {
    *registers = answer;
  }
  return error;
}

}  // namespace

long thread_registers(const Call& call) {
  if (!given(call.a) || !given(call.b) || !given(call.c) || !given(call.d)) {
    return fail(EFAULT);
  }
  const uint64_t thread = load<uint64_t>(call.a);
  if (thread == 0 || thread >= kThreadLimit) {
    return fail(ESRCH);
  }
  Registers registers{};
  if (const int error = ask(static_cast<pid_t>(thread), &registers); error != 0) {
    return fail(error);
  }
  store(call.b, registers.stack);
  store(call.c, registers.frame);
  return store(call.d, registers.program_counter);
}

}  // namespace zut
