/*
 * How the enhanced semaphore hands over a unit, with the kernel side that its waiters rely on: a thread sleeps while
 * its state word is set, and the word is read again just before the sleep. From then on, only a signal or the timeout
 * ends the sleep.
 *
 * Each thread makes DOWNS down calls, each in any of the three modes. There are as many ups as downs, so no down may
 * wait for ever. Timeouts run out and foreign signals come at any moment. What is done under the lock is one step,
 * because other threads read at most one of its words, the state of a waiter, without the lock.
 *
 * A FAULT_ definition seeds one fault, which the check has to find.
 */

#ifndef WAITERS
#define WAITERS 2
#define DOWNS 2
#endif
#define POSTERS 2
#define FOREIGN_SIGNALS 2

mtype = { plain, interruptible, timed };

byte count;
chan waiters = [WAITERS] of { byte, byte }; /* turn and thread, the oldest first */
bool waits[WAITERS];                        /* the state word */
bool pending[WAITERS];                      /* a signal is on its way to the thread */

byte to_post = WAITERS * DOWNS;
byte foreign; /* signals that end a sleep; at other times they change nothing */
byte returned; /* downs that have returned */
byte handed;   /* those of them that got a unit */
byte turns;    /* turns given out since the queue was empty, from 1 on */
byte served;   /* the last turn that got a unit */

inline link_waiter(me) {
  turns++;
  waits[me] = true;
#ifdef FAULT_NEWEST_FIRST
  waiters!!(255 - turns), me
#else
  waiters!!turns, me
#endif
}

inline forget_turns() {
  if
  :: empty(waiters) ->
    turns = 0;
    served = 0
  :: nempty(waiters)
  fi
}

#ifdef FAULT_NO_LOOK_BEFORE_SLEEP
#define MAY_SLEEP(me) true
#define NEED_NOT_SLEEP(me) false
#else
#define MAY_SLEEP(me) waits[me]
#define NEED_NOT_SLEEP(me) !waits[me]
#endif

#ifdef FAULT_TIMEOUT_BEFORE_STATE
#define HAS_UNIT(me) (!waits[me] && !timed_out)
#else
#define HAS_UNIT(me) (!waits[me])
#endif

proctype waiter(byte me) {
  byte downs = DOWNS;
  mtype mode;
  bool timed_out;
end_next:
  if
  :: atomic {
      downs != 0 && count != 0 -> count--;
      handed++;
      downs--;
      returned++;
      goto end_next
    }
  :: atomic {
      downs != 0 && count == 0 -> link_waiter(me);
      if
      :: mode = plain
      :: mode = interruptible
      :: mode = timed
      fi
    }
  fi;
wait:
  atomic {
    if
    :: pending[me] = false /* a handler that runs before the call leaves nothing to end the sleep */
    :: pending[me]
    fi;
    if
    :: NEED_NOT_SLEEP(me) -> goto awake
    :: MAY_SLEEP(me)
    fi
  }
  if
  :: atomic {
      pending[me] -> pending[me] = false
    }
  :: atomic {
      foreign != 0 -> foreign--
    }
  :: mode == timed -> timed_out = true
  fi;
awake:
  atomic {
    if
    :: HAS_UNIT(me) -> handed++
    :: !HAS_UNIT(me) ->
      if
      :: !timed_out && mode == plain -> goto wait
      :: timed_out || mode != plain ->
        assert(waits[me]); /* otherwise its unit would be lost */
        waiters??_, eval(me);
        forget_turns()
      fi
    fi;
    downs--;
    returned++;
    timed_out = false;
    mode = 0;
    goto end_next
  }
}

proctype poster() {
  byte turn, woken;
end_next:
  do
  :: atomic {
      to_post != 0 && empty(waiters) -> to_post--;
      count++
    }
  :: atomic {
      to_post != 0 && nempty(waiters) -> to_post--;
      waiters?turn, woken;
      assert(count == 0 && turn > served && turn <= turns);
      served = turn;
      turn = 0;
      forget_turns();
#ifndef FAULT_STATE_AFTER_SIGNAL
      waits[woken] = false
#endif
    }
#ifdef FAULT_STATE_AFTER_SIGNAL
    pending[woken] = true;
    waits[woken] = false
#else
    atomic { /* a signal that is refused, because too many are pending, is sent again and comes late */
      if
      :: pending[woken] = true
#ifdef FAULT_SIGNAL_NOT_REPEATED
      :: true
#endif
      fi;
      woken = 0
    }
#endif
  od
}

init {
  byte i;
  atomic {
    for (i : 1 .. WAITERS) { run waiter(i - 1) }
    for (i : 1 .. POSTERS) { run poster() }
    i = 0;
    if
    :: foreign = 0
    :: foreign = FOREIGN_SIGNALS
    fi
  }
  returned == WAITERS * DOWNS && to_post == 0;
  assert(empty(waiters) && handed + count == WAITERS * DOWNS)
}
