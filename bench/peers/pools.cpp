// Runs a job on another thread in other ways.
#include <pthread.h>
#include <semaphore.h>

#include <cstring>

#include "peers/peers.h"

#ifdef PEERS_GLIB
#include <glib.h>
#endif
#ifdef PEERS_UV
#include <uv.h>
#endif
#ifdef PEERS_TBB
#include <tbb/task_arena.h>
#endif

namespace {

struct Work {
  peer_job job;
  void* arg;
};

// The current job. There is only one, since each is started after the end of the last.
Work work;

void start_thread(peer_job job, void* arg) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  pthread_create(&thread, &attributes, job, arg);
  pthread_attr_destroy(&attributes);
}

struct BareWorker {
  BareWorker() {
    sem_init(&wake, 0, 0);
    start_thread(
        [](void* worker) -> void* {
          for (;;) {
            sem_wait(&static_cast<BareWorker*>(worker)->wake);
            work.job(work.arg);
          }
        },
        this);
  }
  sem_t wake;
};

void start_on_bare_worker(peer_job job, void* arg) {
  static BareWorker worker;
  work = {job, arg};
  sem_post(&worker.wake);
}

#ifdef PEERS_GLIB
void start_in_glib(peer_job job, void* arg) {
  static GThreadPool* const pool =
      g_thread_pool_new([](void* item, void*) { static_cast<Work*>(item)->job(static_cast<Work*>(item)->arg); },
                        nullptr, 2, TRUE, nullptr);
  work = {job, arg};
  g_thread_pool_push(pool, &work, nullptr);
}
#endif

#ifdef PEERS_UV
void start_in_uv(peer_job job, void* arg) {
  static uv_work_t request;
  work = {job, arg};
  uv_queue_work(
      uv_default_loop(), &request, [](uv_work_t*) { work.job(work.arg); }, [](uv_work_t*, int) {});
}

void settle_uv() { uv_run(uv_default_loop(), UV_RUN_DEFAULT); }
#endif

#ifdef PEERS_TBB
void start_in_tbb(peer_job job, void* arg) {
  static tbb::task_arena arena(2);
  arena.enqueue([job, arg] { job(arg); });
}
#endif

const peer_pool pools[] = {
    {"pthread_create, detached", start_thread, nullptr, 300},
    {"bare worker asleep on a sem_t", start_on_bare_worker, nullptr, 300},
#ifdef PEERS_GLIB
    {"GThreadPool", start_in_glib, nullptr, 300},
#endif
#ifdef PEERS_UV
    {"uv_queue_work", start_in_uv, settle_uv, 300},
#endif
#ifdef PEERS_TBB
    {"tbb::task_arena, enqueue", start_in_tbb, nullptr, 2000},
#endif
};

}  // namespace

const peer_pool* peer_pool_named(const char* name) {
  for (const peer_pool& pool : pools) {
    if (std::strcmp(pool.name, name) == 0) {
      return &pool;
    }
  }
  return nullptr;
}
