/* Shows scheduled work: records that worker threads run, one that queues itself again, and the check for work that
 * hangs. */
#include <stdatomic.h>
#include <stdio.h>
#include <tirn/tirn.h>

enum { FILES = 3, ROUNDS = 5 };

struct file {
  const char* name;
  struct kesa_sched_work flush;
  atomic_int is_flushed;
};

static struct kesa_sem_enhance done;

/* Runs on a worker thread. The record is not touched by the library any more. */
static int flush(struct kesa_sched_work* work) {
  struct file* file = work->data;
  file->is_flushed = 1;
  kesa_sem_enhance_up(&done);
  return 0;
}

/* Queues itself again: a record may be added as soon as its handler runs. */
static int count_rounds(struct kesa_sched_work* work) {
  int* rounds = work->data;
  if (++*rounds < ROUNDS) {
    kesa_sched_add_work(work);
  } else {
    kesa_sem_enhance_up(&done);
  }
  return 0;
}

int main(void) {
  static struct file files[FILES] = {{.name = "index"}, {.name = "journal"}, {.name = "data"}};
  static struct kesa_sched_work counter;
  static int rounds;
  if (kesa_Init() != 0) {
    return 1;
  }
  kesa_sem_enhance_init(&done, 0);
  for (int i = 0; i < FILES; ++i) {
    kesa_sched_init_work(&files[i].flush, flush, &files[i]);
    kesa_set_sched_work_timeout(&files[i].flush, 30); /* seconds; optional */
    if (kesa_sched_add_work(&files[i].flush) == -1) {
      return 1;
    }
  }
  kesa_sched_init_work(&counter, count_rounds, &rounds);
  kesa_sched_add_work(&counter);
  for (int i = 0; i < FILES + 1; ++i) {
    kesa_sem_enhance_down(&done);
  }
  for (int i = 0; i < FILES; ++i) {
    printf("%s: %s\n", files[i].name, files[i].is_flushed ? "flushed" : "not flushed");
  }
  printf("the counter ran %d times\n", rounds);

  /* A health-check service calls this every few seconds, from a thread that runs no work. */
  struct kesa_heal_check check = {0};
  kesa_heal_check_callback(&check);
  printf("the pool is %s\n", check.verdict == 1 ? "healthy" : "stuck");
  kesa_destory();
  return rounds == ROUNDS && check.verdict == 1 ? 0 : 1;
}
