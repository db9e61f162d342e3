// The names of a thread, of its process and of the process's program.
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "libtirn/base/bounds.h"
#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"
#include "libtirn/base/once.h"
#include "libtirn/base/result.h"
#include "tirn/thread.h"

using namespace tirn;

namespace {

constexpr uint32_t kNameSize = 32;

constinit Once g_process_name_known;
char g_process_name[kNameSize] = "default";
constinit Once g_exe_name_known;
char g_exe_name[kNameSize] = "default";

// This function and read_exe_name log under the name of the exported function that calls them.
int read_process_name() {
  constexpr char kFunction[] = "kesa_get_process_name";
  char path[64];
  snprintf_s(path, sizeof path, sizeof path - 1, "/proc/%d/status", getpid());
  const File file(std::fopen(path, "re"));
  if (file == nullptr) {
    TIRN_ERROR_AS(kFunction, "hurn log get comm failed ret=%p errno=%d file=%s", nullptr, errno, path);
    return kFail;
  }
  char name[kNameSize];
  char line[256];
  while (std::fgets(line, sizeof line, file.get()) != nullptr) {
    if (sscanf_s(line, "Name:\t%[^\n]", name, static_cast<unsigned>(sizeof name)) == 1) {
      strcpy_s(g_process_name, sizeof g_process_name, name);
      return kOk;
    }
  }
  TIRN_ERROR_AS(kFunction, "hurn log read comm failed fp=%p errno=%d file=%s", static_cast<void*>(file.get()), errno,
                path);
  return kFail;
}

int read_exe_name() {
  constexpr char kFunction[] = "kesa_get_process_exe_name";
  char path[64];
  if (snprintf_s(path, sizeof path, sizeof path - 1, "/proc/%d/exe", static_cast<int>(kesa_thread_get_knl_tid())) <
      0) {
    return TIRN_ERROR_AS(kFunction, "Can't get program path info."), kFail;
  }
  char program[256]{};
  if (readlink(path, program, sizeof program - 1) < 0) {
    return TIRN_ERROR_AS(kFunction, "Readlink program path<%s> fail errno<%d>.", path, errno), kFail;
  }
  const char* const slash = std::strrchr(program, '/');
  char name[kNameSize];
  int result = strncpy_s(name, sizeof name, slash != nullptr ? slash + 1 : program, sizeof name - 1);
  if (result != 0) {
    return TIRN_ERROR_AS(kFunction, "Set exe name failed, ret(%d).", result), kFail;
  }
  result = strcpy_s(g_exe_name, sizeof g_exe_name, name);
  if (result != 0) {
    return TIRN_ERROR_AS(kFunction, "Set programName failed, ret(%d).", result), kFail;
  }
  return kOk;
}

}  // namespace

int kesa_thrd_setname(const char* format, ...) {
  if (format == nullptr) {
    return TIRN_ERROR("Kesa set thrd name(NULL) fail."), kOk;
  }
  kesa_thread_s* const record = m_current_thread;
  if (record == nullptr) {
    return TIRN_ERROR("Kesa set thrd name(%s) fail, please use kesa or Moru create thrd.", format), kOk;
  }
  char name[KESA_THREAD_NAME_SIZE]{};
  va_list arguments;
  va_start(arguments, format);
  vsnprintf_s(name, sizeof name, sizeof name - 1, format, arguments);  // a longer name is cut
  va_end(arguments);
  if (name[0] == '\0') {
    return TIRN_ERROR("vsnprintf_s failed, name(%s).", format), kOk;
  }
  for (size_t i = 0; i < sizeof name; ++i) {  // kesa_thrd_list may read it meanwhile
    std::atomic_ref(record->name[i]).store(name[i], std::memory_order_relaxed);
  }
  if (prctl(PR_SET_NAME, name) != 0) {
    TIRN_ERROR("Kesa set thrd name fail, errno:%d.", errno);
  }
  return kOk;
}

const char* kesa_thrd_getname() { return m_current_thread != nullptr ? m_current_thread->name : nullptr; }

int kesa_get_process_name(char* buf, uint32_t len) {
  if (g_process_name_known.run(read_process_name) != kOk) {
    return kFail;
  }
  if (strncpy_s(buf, len, g_process_name, len - 1) != 0) {
    return TIRN_ERROR("strncpy_s failed, processName(%s).", g_process_name), kFail;
  }
  return kOk;
}

int kesa_get_process_exe_name(char* buf, uint32_t len) {
  if (buf == nullptr) {
    return TIRN_ERROR("programName is NULL."), kFail;
  }
  if (g_exe_name_known.run(read_exe_name) != kOk) {
    return kFail;
  }
  const uint32_t size = std::min(len, kNameSize);
  const int result = strncpy_s(buf, size, g_exe_name, size - 1);
  if (result != 0) {
    return TIRN_ERROR("Copy program name failed, ret(%d).", result), kFail;
  }
  return kOk;
}
