// Runs pieces of a test in threads that the library starts.
#ifndef TIRN_TEST_THREAD_JOBS_H
#define TIRN_TEST_THREAD_JOBS_H

#include <atomic>
#include <functional>

#include "support/wait_until.h"
#include "tirn/thread.h"

namespace tirn::test {

using Create = int (*)(kesa_thread_fn, void*, pthread_t*);

inline int create_plain(kesa_thread_fn fn, void* arg, pthread_t* id) {
  return kesa_thrd_create_attr(fn, arg, id, nullptr);
}

// A piece of a test. It must live until its thread no longer uses it.
struct Job {
  explicit Job(std::function<void()> body_in) : body(std::move(body_in)) {}
  int start(Create create) {
    const auto run = [](void* job) -> void* {
      static_cast<Job*>(job)->body();
      static_cast<Job*>(job)->is_done = true;
      return nullptr;
    };
    return create(run, this, nullptr);
  }
  bool wait() const {
    return wait_until([this] { return is_done.load(); });
  }

  std::function<void()> body;
  std::atomic<bool> is_done{false};
};

inline bool run_in_thread(Create create, std::function<void()> body) {
  Job job(std::move(body));
  return job.start(create) == 0 && job.wait();
}

}  // namespace tirn::test

#endif
