// Calls the once control and the thread keys of POSIX, and logs each failure.
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "tirn/percpu_posix.h"

using namespace tirn;

int kesa_pthread_init_once(pthread_once_t* once, void (*init)()) {
  const int result = pthread_once(once, init);
  if (result != 0) {
    TIRN_ERROR("pthread_once failed!\n");
  }
  return result;
}

int kesa_key_create(pthread_key_t* key, void (*destructor)(void*)) {
  const int result = pthread_key_create(key, destructor);
  if (result != 0) {
    TIRN_ERROR("pthread_key_create failed!\n");
  }
  return result;
}

int kesa_key_delete(pthread_key_t key) {
  const int result = pthread_key_delete(key);
  if (result != 0) {
    TIRN_ERROR("pthread_key_delete failed!\n");
  }
  return result;
}

int kesa_key_setspecific(pthread_key_t key, const void* value) {
  if (value == nullptr) {
    return TIRN_ERROR("param(value) is null !\n"), kFail;
  }
  const int result = pthread_setspecific(key, value);
  if (result != 0) {
    TIRN_ERROR("pthread_setspecific failed!\n");
  }
  return result;
}

void* kesa_key_getspecific(pthread_key_t key) {
  void* const value = pthread_getspecific(key);
  if (value == nullptr) {
    TIRN_ERROR("pthread_getspecific failed!\n");
  }
  return value;
}
