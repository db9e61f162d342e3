/*
 * How the pool hands a job to an idle worker, from the start of the worker to the end of the pool.
 *
 * A giver looks for an idle worker, binds it, stores the job and wakes it. If it finds no worker, it runs the job
 * itself. The pool ends at any moment, or never. One pass over the workers has to be enough, although the library
 * makes two. Each job has to run once, and each worker has to end if the pool does.
 *
 * A FAULT_ definition seeds one fault, which the check has to find.
 */

#define WORKERS 2
#define GIVERS 2
#ifndef JOBS
#define JOBS 2 /* of each giver */
#endif

mtype = { running, idle, bound, dead };

mtype state[WORKERS];
byte entry[WORKERS];    /* the number of the job, or 0 */
byte argument[WORKERS]; /* has to be the same number */
byte wake[WORKERS];     /* the semaphore */
bool stop;

bool has_run[GIVERS * JOBS + 1];
byte finished; /* jobs that have run */
byte ended;    /* workers that have ended */

inline run_once(job) {
  assert(!has_run[job]);
  has_run[job] = true;
  finished++
}

proctype worker(byte me) {
  byte job;
#ifdef FAULT_STOP_READ_BEFORE_IDLE
  if
  :: !stop ->
    state[me] = idle;
    goto look
  :: stop
  fi;
#endif
  state[me] = idle;
again:
  if
  :: !stop
  :: atomic {
      stop ->
      if
#ifdef FAULT_BOUND_WORKER_LEAVES
      :: true ->
#else
      :: state[me] == idle ->
#endif
        state[me] = dead;
        ended++;
        goto end_over
#ifndef FAULT_BOUND_WORKER_LEAVES
      :: state[me] != idle
#endif
      fi
    }
  fi;
look:
  if
  :: atomic {
      entry[me] != 0 -> job = entry[me];
      assert(state[me] == bound && argument[me] == job);
      run_once(job);
      job = 0;
      argument[me] = 0
    }
#ifdef FAULT_IDLE_BEFORE_CLEARED
    state[me] = idle;
    entry[me] = 0;
#else
    entry[me] = 0;
    state[me] = idle;
#endif
    goto again
  :: entry[me] == 0
  fi;
end_asleep:
  atomic {
    wake[me] != 0 -> wake[me]--;
    goto again
  }
end_over:
  false
}

#ifdef FAULT_LOOK_THEN_BIND
#define BIND_STEP
#else
#define BIND_STEP atomic
#endif

proctype giver(byte first) {
  byte job = first, slot;
end_next:
  job != first + JOBS;
  do
  :: atomic {
      slot == WORKERS || stop ->
      run_once(job);
      break
    }
  :: slot != WORKERS && !stop ->
    if
    :: BIND_STEP {
        state[slot] == idle -> state[slot] = bound
      }
#ifdef FAULT_ENTRY_BEFORE_ARGUMENT
      entry[slot] = job;
      argument[slot] = job;
#else
#ifdef FAULT_WOKEN_BEFORE_ENTRY
      wake[slot]++;
#endif
      argument[slot] = job;
      entry[slot] = job;
#endif
#ifndef FAULT_WOKEN_BEFORE_ENTRY
      wake[slot]++;
#endif
      break
    :: atomic {
        state[slot] != idle -> slot++
      }
    fi
  od;
  atomic {
    slot = 0;
    job++;
    goto end_next
  }
}

proctype destroyer() {
  byte slot;
#ifndef FAULT_STOP_AFTER_WAKING
  stop = true;
#endif
  do
  :: atomic {
      slot != WORKERS ->
      if
      :: state[slot] == idle || state[slot] == bound -> wake[slot]++
      :: else
      fi;
      slot++
    }
  :: slot == WORKERS -> break
  od;
  stop = true
}

init {
  byte i;
  byte to_end;
  atomic {
    for (i : 0 .. WORKERS - 1) {
      state[i] = running;
      run worker(i)
    }
    for (i : 0 .. GIVERS - 1) { run giver(1 + i * JOBS) }
    if
    :: true
    :: run destroyer();
      to_end = WORKERS
    fi
  }
  finished == GIVERS * JOBS && ended >= to_end
}
