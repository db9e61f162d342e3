/* Passes requests from one thread to another through a ring of pointers, and back in order through a second ring. */
#include <stdio.h>
#include <tirn/tirn.h>

enum { REQUESTS = 1000, BURST = 16 };

struct request {
  uint32_t number;
  uint32_t answer;
};

static struct request requests[REQUESTS];
static struct kesa_ring* to_do;
static struct kesa_ring* done;
static struct kesa_sem_enhance over;

static void* answerer(void* arg) {
  for (uint32_t answered = 0; answered < REQUESTS;) {
    uint64_t values[BURST];
    const uint32_t taken = kesa_ring_dequeue_burst(to_do, values, BURST);
    for (uint32_t i = 0; i < taken; ++i) {
      struct request* const request = (struct request*)(uintptr_t)values[i];
      request->answer = request->number * request->number;
    }
    if (taken == 0) {
      kesa_yield();
      continue;
    }
    /* `done` has room for all requests, so this cannot fail. */
    kesa_ring_enqueue_bulk(done, values, taken);
    answered += taken;
  }
  kesa_sem_enhance_up(&over);
  return arg;
}

int main(void) {
  if (kesa_Init() != 0) {
    return 1;
  }
  kesa_sem_enhance_init(&over, 0);
  to_do = kesa_ring_create(64, KESA_RING_SINGLE_BOTH); /* holds 63 requests at a time */
  done = kesa_ring_create(1024, KESA_RING_SINGLE_BOTH);
  if (to_do == NULL || done == NULL || kesa_thrd_create(answerer, NULL, NULL) != 0) {
    return 1;
  }
  for (uint32_t i = 0; i < REQUESTS; ++i) {
    requests[i].number = i;
    while (kesa_ring_enqueue(to_do, (uint64_t)(uintptr_t)&requests[i]) != 0) {
      kesa_yield(); /* the ring is full */
    }
  }
  uint32_t right = 0;
  for (uint32_t i = 0; i < REQUESTS; ++i) {
    uint64_t value;
    while (kesa_ring_dequeue(done, &value) != 0) {
      kesa_yield(); /* the ring is empty */
    }
    const struct request* const request = (const struct request*)(uintptr_t)value;
    right += request == &requests[i] && request->answer == i * i;
  }
  printf("%u of %d answers came back in order\n", right, REQUESTS);
  kesa_sem_enhance_down(&over); /* from here on, the other thread does not use the rings */
  kesa_ring_delete(&to_do);
  kesa_ring_delete(&done);
  return right == REQUESTS ? 0 : 1;
}
