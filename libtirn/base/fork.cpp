// The library's only fork handler: it runs the steps of all who have something to renew.
#include "libtirn/base/fork.h"

#include <pthread.h>

#include <cerrno>

namespace tirn {
namespace {

pthread_once_t g_registered = PTHREAD_ONCE_INIT;  // the C library itself renews these in a child
pthread_mutex_t g_mutex =
    PTHREAD_MUTEX_INITIALIZER;  // held during a fork, so that nobody is half joined in the child
constinit ForkSteps* g_first = nullptr;

}  // namespace

struct ForkStepsOfAll {
  // Both run with the mutex held.
  static void run(const ForkSteps::Step ForkSteps::*step) {
    const int error = errno;
    for (ForkSteps* at = g_first; at != nullptr; at = at->next_) {
      if (at->*step != nullptr) {
        (at->*step)(*at);
      }
    }
    errno = error;
  }
  static void prepare() {
    pthread_mutex_lock(&g_mutex);
    run(&ForkSteps::prepare_);
  }
  static void in_parent() {
    run(&ForkSteps::parent_);
    pthread_mutex_unlock(&g_mutex);
  }
  static void in_child() {
    run(&ForkSteps::child_);
    pthread_mutex_unlock(&g_mutex);
  }
};

void ForkSteps::join() {
  pthread_once(&g_registered,
               [] { pthread_atfork(ForkStepsOfAll::prepare, ForkStepsOfAll::in_parent, ForkStepsOfAll::in_child); });
  if (pthread_mutex_lock(&g_mutex) != 0) {
    return;
  }
  if (!is_followed_.load(std::memory_order_relaxed)) {
    next_ = g_first;
    g_first = this;
    is_followed_.store(true, std::memory_order_release);
  }
  pthread_mutex_unlock(&g_mutex);
}

}  // namespace tirn
