// A thread that ends inside a function leaves frames that the address sanitizer still takes for live. It then reports
// errors in whatever uses that stack next. leave_frames prevents this.
#ifndef TIRN_TEST_THREAD_END_H
#define TIRN_TEST_THREAD_END_H

#include <pthread.h>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#endif

namespace tirn::test {

// Call this when such a thread is about to end: before pthread_exit, or in a cleanup handler.
inline void leave_frames() {
#ifdef __SANITIZE_ADDRESS__
  pthread_attr_t attributes;
  void* address = nullptr;
  size_t size = 0;
  if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
    pthread_attr_getstack(&attributes, &address, &size);
    pthread_attr_destroy(&attributes);
    __asan_unpoison_memory_region(address, size);
  }
#endif
}

}  // namespace tirn::test

#endif
