/* Runs jobs of several rates from one loop: a clock tree divides the rate of the loop. The same tree is first checked
 * without any time, by a diagram of the steps in which its modules would fire. */
#include <stdio.h>
#include <tirn/tirn.h>

enum { POLL_PERIOD = 4, REPORT_PERIOD = 5 };

struct job {
  int runs;
  int resets;
};

/* The handler of all modules. A real one tells from `code` whether to do its job or to start it afresh. */
static int32_t run_job(uint64_t tick, uint32_t code, void* arg) {
  struct job* const job = arg;
  (void)tick;
  if (code == 0) {
    ++job->runs;
  } else {
    ++job->resets;
  }
  return 0;
}

static struct job loop_job;
static struct job poll_job;
static struct job report_job;
static struct clkm_module loop;
static struct clkm_module polling; /* at every 4th turn of the loop */
static struct clkm_module report;  /* after every 5th poll, so at every 20th turn */

static void build_tree(void) {
  loop_job = poll_job = report_job = (struct job){0, 0};
  clkm_init(&loop, run_job, &loop_job, "loop");
  clkm_init(&polling, run_job, &poll_job, "poll");
  clkm_init(&report, run_job, &report_job, "report");
  clkm_reg_child_module(&loop, &polling, POLL_PERIOD);
  clkm_reg_child_module(&polling, &report, REPORT_PERIOD);
}

int main(void) {
  build_tree();
  for (uint64_t step = 0; step < 100; ++step) {
    if (step == 30) {
      clkm_disable(&polling); /* the report stands still with it */
    } else if (step == 50) {
      clkm_enable(&polling);
    } else if (step == 80) {
      clkm_reset(&polling);
    }
    clkm_run_simu(&loop, step);
  }
  clkm_show_simu(&loop, 99, printf);
  const int resets = poll_job.resets == 1 && report_job.resets == 1;

  build_tree();
  for (int turn = 0; turn < 100; ++turn) {
    clkm_run(&loop);
    kesa_msleep(1);
  }
  printf("%d turns, %d polls, %d reports\n", loop_job.runs, poll_job.runs, report_job.runs);
  return resets && loop_job.runs == 100 && poll_job.runs == 25 && report_job.runs == 5 ? 0 : 1;
}
