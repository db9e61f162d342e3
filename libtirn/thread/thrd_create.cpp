// Starts threads: takes a record, prepares the attributes and calls pthread_create.
#include "libtirn/thread/thrd_create.h"

#include <cerrno>
#include <cstring>

#include "libtirn/base/cancellation.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/thread/thrd_entry.h"
#include "libtirn/thread/thrd_table.h"

using namespace tirn;
using namespace tirn::thread;

namespace tirn::thread {
namespace {

// The caller's attributes, or default ones if the caller gives none.
class Attributes {
 public:
  explicit Attributes(pthread_attr_t* given) : used_(given) {
    if (given == nullptr) {
      error_ = pthread_attr_init(&own_);
      used_ = &own_;
    }
  }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;
  ~Attributes() {
    if (used_ == &own_ && error_ == 0) {
      pthread_attr_destroy(&own_);
    }
  }

  int set_detached() { return error_ != 0 ? error_ : pthread_attr_setdetachstate(used_, PTHREAD_CREATE_DETACHED); }
  const pthread_attr_t* get() const { return used_; }

 private:
  pthread_attr_t own_;
  pthread_attr_t* used_;
  int error_ = 0;
};

// Starts the record's thread. Log lines name `function`, the exported function that the caller used. If the thread
// cannot be started, the record is released.
int start(kesa_thread_s* record, kesa_thread_fn entry, pthread_t* thread, pthread_attr_t* attr,
          const char* function) {
  Attributes attributes(attr);
  int result = attributes.set_detached();
  if (result != 0) {
    TIRN_ERROR_AS(function, "Set thread detach state failed, ret:%d, errno(%d:%s).", result, errno,
                  strerrordesc_np(errno));
  } else {
    result = pthread_create(thread, attributes.get(), entry, record);
    if (result != 0) {
      TIRN_ERROR_AS(function, "Create thread failed, ret:%d, errno(%d:%s).", result, errno, strerrordesc_np(errno));
    }
  }
  if (result != 0) {
    kesa_thrd_putthreadinfo(record);
    return kFail;
  }
  return kOk;
}

}  // namespace

int init_small_stack(pthread_attr_t* attributes) {
  int result = pthread_attr_init(attributes);
  if (result == 0) {
    result = pthread_attr_setstacksize(attributes, KESA_THREAD_SMALL_STACK);
    if (result != 0) {
      pthread_attr_destroy(attributes);
    }
  }
  return result;
}

}  // namespace tirn::thread

int create_thread_raw_base(kesa_thread_fn fn, void* arg, kesa_thread_fn entry, pthread_t* id_out,
                           pthread_attr_t* attr) {
  if (fn == nullptr) {
    return kFail;
  }
  kesa_thrd_module_init();
  const NoCancellation guard;  // until the new thread has taken over the record's reference
  kesa_thread_s* const record = take_record(fn, arg);
  if (record == nullptr) {
    return TIRN_INFO("Create thread info fail."), kFail;
  }
  pthread_t thread;
  if (start(record, entry, &thread, attr, __func__) != kOk) {
    return kFail;
  }
  if (id_out != nullptr) {
    *id_out = thread;
  }
  return kOk;
}

int create_thread_pool_base(kesa_thread_fn entry, pthread_attr_t* attr) {
  kesa_thrd_module_init();
  const NoCancellation guard;
  kesa_thread_s* const record = take_table_record(nullptr, nullptr);
  // pthread_create stores the id before the thread runs, so a thread that finds the worker idle sees it.
  return record != nullptr ? start(record, entry, &record->thread, attr, __func__) : kFail;
}

int create_thread_raw(kesa_thread_fn fn, void* arg, pthread_t* id_out) {
  return create_thread_raw_base(fn, arg, default_entry, id_out, nullptr);
}

int kesa_thread_create_raw(kesa_thread_fn fn, void* arg, pthread_t* id_out) {
  return create_thread_raw(fn, arg, id_out);
}

int kesa_thrd_create_attr(kesa_thread_fn fn, void* arg, pthread_t* id_out, pthread_attr_t* attr) {
  return create_thread_raw_base(fn, arg, plain_entry, id_out, attr);
}

int kesa_thrd_attr_init(pthread_attr_t* attr) {
  return attr != nullptr && pthread_attr_init(attr) == 0 ? kOk : kFail;
}

int kesa_thrd_attr_destroy(pthread_attr_t* attr) {
  return attr != nullptr && pthread_attr_destroy(attr) == 0 ? kOk : kFail;
}

int kesa_thrd_setstacksize(pthread_attr_t* attr, size_t size) {
  return attr != nullptr && pthread_attr_setstacksize(attr, size) == 0 ? kOk : kFail;
}
