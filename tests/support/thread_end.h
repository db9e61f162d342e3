// The address sanitizer does not see where a thread ends in the midst of its frames, and takes what runs afterwards on its
// stack for a fault.
#ifndef TIRN_TEST_THREAD_END_H
#define TIRN_TEST_THREAD_END_H

#include <pthread.h>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#endif

namespace tirn::test {

// To be called where such a thread ends, or is about to: by pthread_exit, or in a cleanup.
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
