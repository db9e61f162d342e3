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

// The current job. There is only one: another is queued only after the last has ended.
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
void flood_glib(peer_job job, void* arg, unsigned count) {
  static GThreadPool* const pool =
      g_thread_pool_new([](void* item, void*) { static_cast<Work*>(item)->job(static_cast<Work*>(item)->arg); },
                        nullptr, 2, TRUE, nullptr);
  work = {job, arg};
  for (unsigned i = 0; i < count; ++i) {
    g_thread_pool_push(pool, &work, nullptr);
  }
}

void start_in_glib(peer_job job, void* arg) { flood_glib(job, arg, 1); }
#endif

#ifdef PEERS_UV
void flood_uv(peer_job job, void* arg, unsigned count) {
  static uv_work_t requests[PEER_FLOOD_MOST];
  work = {job, arg};
  for (unsigned i = 0; i < count; ++i) {
    uv_queue_work(
        uv_default_loop(), &requests[i], [](uv_work_t*) { work.job(work.arg); }, [](uv_work_t*, int) {});
  }
}

void start_in_uv(peer_job job, void* arg) { flood_uv(job, arg, 1); }

void settle_uv() { uv_run(uv_default_loop(), UV_RUN_DEFAULT); }
#endif

#ifdef PEERS_TBB
void flood_tbb(peer_job job, void* arg, unsigned count) {
  static tbb::task_arena arena(2);
  for (unsigned i = 0; i < count; ++i) {
    arena.enqueue([job, arg] { job(arg); });
  }
}

void start_in_tbb(peer_job job, void* arg) { flood_tbb(job, arg, 1); }
#endif

const peer_pool pools[] = {
    {"pthread_create, detached", start_thread, nullptr, 300, nullptr},
    {"bare worker asleep on a sem_t", start_on_bare_worker, nullptr, 300, nullptr},
#ifdef PEERS_GLIB
    {"GThreadPool", start_in_glib, nullptr, 300, flood_glib},
#endif
#ifdef PEERS_UV
    {"uv_queue_work", start_in_uv, settle_uv, 300, flood_uv},
#endif
#ifdef PEERS_TBB
    {"tbb::task_arena, enqueue", start_in_tbb, nullptr, 2000, flood_tbb},
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
