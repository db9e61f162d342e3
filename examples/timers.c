/* Shows a timer that starts itself again, as a heartbeat does, and one that is put off as long as there is work. */
#include <stdatomic.h>
#include <stdio.h>
#include <tirn/tirn.h>

enum { BEATS = 3 };

static struct kesa_timer heartbeat;
static struct kesa_timer idle;
static struct kesa_sem_enhance done;
static atomic_int beats;
static atomic_int timeouts;

static void beat(uint64_t milliseconds) {
  if (++beats < BEATS) {
    kesa_timer_modify(&heartbeat, milliseconds); /* timers fire once, so a periodic one starts itself again */
  } else {
    kesa_sem_enhance_up(&done);
  }
}

static void give_up(uint64_t unused) {
  (void)unused;
  ++timeouts;
  kesa_sem_enhance_up(&done);
}

int main(void) {
  if (kesa_Init() != 0) {
    return 1;
  }
  kesa_sem_enhance_init(&done, 0);
  kesa_timer_set(&heartbeat, 10, 10, beat);
  kesa_timer_set(&idle, 1000, 0, give_up);
  if (kesa_timer_add(&heartbeat) != 0 || kesa_timer_add(&idle) != 0) {
    return 1;
  }
  for (int work = 0; work < 5; ++work) {
    kesa_timer_modify(&idle, 1000); /* there was work: wait for another second */
  }
  kesa_sem_enhance_down(&done); /* all beats */
  kesa_timer_modify(&idle, 20); /* no more work comes */
  kesa_sem_enhance_down(&done);
  kesa_timer_destroy(&heartbeat); /* waits for a callback that still runs: the record may be freed afterwards */
  kesa_timer_destroy(&idle);
  printf("%d beats, then %d timeout\n", beats, timeouts);
  return 0;
}
