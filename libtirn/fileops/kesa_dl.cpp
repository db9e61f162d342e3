#include <dlfcn.h>

#include "libtirn/base/result.h"
#include "tirn/fileops.h"

void* kesa_dlopen(const char* path, int flags) { return dlopen(path, flags); }

void* kesa_dlsym(void* handle, const char* name) { return handle == nullptr ? nullptr : dlsym(handle, name); }

char* kesa_dlerror(void) { return dlerror(); }

int kesa_dlclose(void* handle) { return handle == nullptr ? tirn::kFail : dlclose(handle); }
