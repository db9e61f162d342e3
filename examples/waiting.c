/* Shows the usual order of calls for a wait queue, and a semaphore that serves threads in order of arrival. */
#include <stdatomic.h>
#include <stdio.h>
#include <tirn/tirn.h>

enum { WAITERS = 3 };

static struct kesa_wait_queue_head queue;
static atomic_int door_is_open;

static struct kesa_sem_enhance turn;
static struct kesa_sem_enhance done;
static int order[WAITERS];
static int served;

/* Waits until `door_is_open` is set. The waiter tests this condition itself, after prepare_to_wait and before it
 * sleeps, so a wake-up in between is not lost. */
static void wait_for_door(void) {
  struct kesa_wait_queue_entry entry;
  kesa_wait_queue_entry_init(&entry, kesa_thread_get_knl_tid());
  for (;;) {
    prepare_to_wait(&queue, &entry);
    before_wait();
    if (door_is_open) {
      break;
    }
    sched_wait_timeout(&entry, 250); /* 250 jiffies, a second; after a timeout the loop tests the condition again */
  }
  finish_wait(&queue, &entry);
}

static void* waiter(void* number) {
  wait_for_door();
  kesa_sem_enhance_down(&turn);
  order[served++] = (int)(intptr_t)number;
  kesa_sem_enhance_up(&turn); /* gives the unit directly to the oldest waiter; no newcomer can take it */
  kesa_sem_enhance_up(&done);
  return NULL;
}

int main(void) {
  if (kesa_Init() != 0) {
    return 1;
  }
  kesa_wait_queue_head_init(&queue);
  kesa_sem_enhance_init(&turn, 1);
  kesa_sem_enhance_init(&done, 0);
  for (intptr_t i = 1; i <= WAITERS; ++i) {
    if (kesa_thrd_create(waiter, (void*)i, NULL) != 0) {
      return 1;
    }
  }
  kesa_msleep(20);
  door_is_open = 1; /* set the condition before the wake-up */
  __wake_up(&queue);
  for (int i = 0; i < WAITERS; ++i) {
    kesa_sem_enhance_down(&done);
  }
  printf("%d waiters went through the door, in the order %d %d %d\n", served, order[0], order[1], order[2]);
  return 0;
}
