/* A wait queue in its typical calling order, and a semaphore that serves in the order of arrival. */
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

/* Waits until the door is open. The condition is the waiter's own, and is tested between prepare and sleep: a wake-up
 * that comes in between is not lost. */
static void wait_for_door(void) {
  struct kesa_wait_queue_entry entry;
  kesa_wait_queue_entry_init(&entry, kesa_thread_get_knl_tid());
  for (;;) {
    prepare_to_wait(&queue, &entry);
    before_wait();
    if (door_is_open) {
      break;
    }
    sched_wait_timeout(&entry, 250); /* a second; a timeout only tests again */
  }
  finish_wait(&queue, &entry);
}

static void* waiter(void* number) {
  wait_for_door();
  kesa_sem_enhance_down(&turn);
  order[served++] = (int)(intptr_t)number;
  kesa_sem_enhance_up(&turn); /* the oldest waiter gets the unit itself: no newcomer can take it */
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
  door_is_open = 1; /* first the condition, then the wake-up */
  __wake_up(&queue);
  for (int i = 0; i < WAITERS; ++i) {
    if (kesa_sem_enhance_down_timeout(&done, 5000) != 0) {
      return 1;
    }
  }
  printf("%d waiters went through the door, in the order %d %d %d\n", served, order[0], order[1], order[2]);
  return 0;
}
