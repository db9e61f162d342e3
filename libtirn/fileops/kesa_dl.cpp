// Implements the calls to the dynamic loader of tirn/fileops.h.
#include <dlfcn.h>

#include "libtirn/base/cancellation.h"
#include "libtirn/base/result.h"
#include "tirn/fileops.h"

using namespace tirn;

// Objects run code of their own while they are loaded and unloaded, with the loader's lock held. A cancellation there
// would leave it locked.

void* kesa_dlopen(const char* path, int flags) {
  const NoCancellation guard;
  return dlopen(path, flags);
}

void* kesa_dlsym(void* handle, const char* name) { return handle == nullptr ? nullptr : dlsym(handle, name); }

char* kesa_dlerror(void) { return dlerror(); }

int kesa_dlclose(void* handle) {
  const NoCancellation guard;
  return handle == nullptr ? kFail : dlclose(handle);
}
