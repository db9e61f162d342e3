// The library's only fork handler: it runs the steps of all who have something to renew.
#include "libtirn/base/fork.h"

#include <pthread.h>

#include <cerrno>

namespace tirn {
namespace {

pthread_once_t g_registered = PTHREAD_ONCE_INIT;           // the C library itself renews these in a child
pthread_mutex_t g_fork_mutex = PTHREAD_MUTEX_INITIALIZER;  // one fork at a time
pthread_mutex_t g_mutex =
    PTHREAD_MUTEX_INITIALIZER;  // of the list; held while the process splits, so that nobody is half joined in the child
constinit ForkSteps* g_first = nullptr;

}  // namespace

struct ForkStepsOfAll {
  static void run(const ForkSteps::Step ForkSteps::*step, ForkSteps* first, const ForkSteps* end = nullptr) {
    const int error = errno;
    for (ForkSteps* at = first; at != end; at = at->next_) {
      if (at->*step != nullptr) {
        (at->*step)(*at);
      }
    }
    errno = error;
  }
  // A step may wait for a thread that is about to join, so it runs without the list's mutex, and those who joined
  // meanwhile follow.
  static void prepare() {
    pthread_mutex_lock(&g_fork_mutex);
    pthread_mutex_lock(&g_mutex);
    for (const ForkSteps* done = nullptr; done != g_first;) {
      ForkSteps* const first = g_first;
      pthread_mutex_unlock(&g_mutex);
      run(&ForkSteps::prepare_, first, done);
      pthread_mutex_lock(&g_mutex);
      done = first;
    }
  }
  static void in_parent() {
    run(&ForkSteps::parent_, g_first);
    pthread_mutex_unlock(&g_mutex);
    pthread_mutex_unlock(&g_fork_mutex);
  }
  static void in_child() {
    run(&ForkSteps::child_, g_first);
    pthread_mutex_unlock(&g_mutex);
    pthread_mutex_unlock(&g_fork_mutex);
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
