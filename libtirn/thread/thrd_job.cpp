// Starts a function on an idle worker of the pool, or on a new thread if there is none.
#include <cerrno>
#include <cstring>

#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "libtirn/thread/thrd_create.h"
#include "libtirn/thread/thrd_entry.h"
#include "tirn/thread.h"

using namespace tirn;
using namespace tirn::thread;

int kesa_thrd_create(kesa_thread_fn fn, void* arg, pthread_t* id_out) {
  return create_thread_from_thread_pool(fn, arg, id_out) == kOk ? kOk : create_thread_raw(fn, arg, id_out);
}

int create_thread_nopreempt_raw(kesa_thread_fn fn, void* arg, pthread_t* id_out) {
  if (create_thread_from_thread_pool(fn, arg, id_out) == kOk) {
    return kOk;
  }
  if (kesa_get_instant_map_flag() != 1) {
    return create_thread_raw(fn, arg, id_out);
  }
  pthread_attr_t attributes;
  const int result = init_small_stack(&attributes);
  if (result != 0) {
    TIRN_ERROR("Set thread stack size failed, ret:%d, errno(%d:%s).", result, errno, strerrordesc_np(errno));
    return kFail;
  }
  return create_thread_raw_base(fn, arg, default_entry, id_out, &attributes);
}
