// What a thread knows about itself without a system call, and the requests to the kernel side about threads.
#include "tirn/thread.h"

#include <unistd.h>

#include <atomic>

#include "libtirn/base/log.h"
#include "libtirn/base/private_call.h"
#include "libtirn/base/result.h"

using namespace tirn;

namespace {

constexpr uint64_t kNoThreadId = ~uint64_t{0};

}  // namespace

__thread kesa_thread_s* m_current_thread = nullptr;
__thread int g_siKesaThrdPID = -1;
__thread uint64_t g_ullKesaThrdId = kNoThreadId;
__thread int my_core = -1;
__thread int my_numa = -1;

int g_siProcMapFlag = 0;

// Threads need no set-up so far.
int kesa_thrd_module_init() { return kOk; }

kesa_thread_s* kesa_thrd_currentthreadinfo() { return m_current_thread; }

uint32_t kesa_thread_get_knl_tid() {
  return m_current_thread != nullptr ? m_current_thread->tid : static_cast<uint32_t>(gettid());
}

int kesa_thrd_setpid_accl() {
  g_siKesaThrdPID = getpid();
  return kOk;
}

int kesa_thrd_getpid_accl() {
  if (g_siKesaThrdPID <= 0) {
    kesa_thrd_setpid_accl();
  }
  return g_siKesaThrdPID;
}

int kesa_thrd_settid_accl() {
  g_ullKesaThrdId = pthread_self();
  return kOk;
}

uint64_t kesa_thrd_gettid_accl() {
  if (g_ullKesaThrdId == kNoThreadId) {
    kesa_thrd_settid_accl();
  }
  return g_ullKesaThrdId;
}

int smp_processor_id() { return my_core >= 0 ? my_core : sched_getcpu(); }

void kesa_thrd_core_set(int core) { my_core = core; }

void kesa_thrd_numaId_set(int id) { my_numa = id; }

int kesa_thrd_numaId_get() { return my_numa; }

int kesa_thrd_yield() { return sched_yield(); }

int kesa_set_instant_map_flag() {
  std::atomic_ref(g_siProcMapFlag).store(1, std::memory_order_relaxed);
  return kOk;
}

int kesa_get_instant_map_flag() { return std::atomic_ref(g_siProcMapFlag).load(std::memory_order_relaxed); }

int kesa_thread_run_in_iod_context_init(uint32_t id) {
  if (m_current_thread != nullptr) {
    m_current_thread->iod_id = id;
    m_current_thread->context = KESA_THREAD_CONTEXT_IOD;
  }
  return kOk;
}

int kesa_thread_run_in_iod_context_check() {
  return m_current_thread != nullptr && m_current_thread->context == KESA_THREAD_CONTEXT_IOD ? 1 : 0;
}

int kesa_thread_run_in_irq_context_check() {
  return m_current_thread != nullptr && m_current_thread->context == KESA_THREAD_CONTEXT_IRQ ? 1 : 0;
}

uint32_t kesa_thread_iod_thread_id_get() { return m_current_thread != nullptr ? m_current_thread->iod_id : 0; }

int kesa_thread_run_in_irq_context_save(uint32_t* saved) {
  if (m_current_thread != nullptr) {
    *saved = m_current_thread->context;
    m_current_thread->context = KESA_THREAD_CONTEXT_IRQ;
  }
  return kOk;
}

int kesa_thread_run_in_irq_context_restore(uint32_t saved) {
  if (m_current_thread != nullptr) {
    m_current_thread->context = saved;
  }
  return kOk;
}

int kesa_thrd_getstatus(uint32_t tid) {
  if (private_call(PrivateCommand::kThreadStatus, &tid) != 0) {
    TIRN_INFO("Kesa syscall for thrd_getstatus failed.");
  }
  return kOk;
}

int kesa_thrd_dump_cpu_stack_knl(uint32_t cpu) {
  if (private_call(PrivateCommand::kDumpCpuStackKernel, &cpu) != 0) {
    TIRN_ERROR("Kesa syscall for cur_cpu_thrd_getstatus failed.");
  }
  return kOk;
}

int kesa_thrd_dump_cpu_stack(uint32_t cpu) {
  return private_call(PrivateCommand::kDumpCpuStack, &cpu) == 0 ? kOk : kFail;
}

int kesa_thrd_dump_thread_stack_if_not_running(uint32_t tid) {
  return static_cast<int>(private_call(PrivateCommand::kDumpIdleThreadStack, uint64_t{tid}));
}
