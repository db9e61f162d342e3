/*
 * How the ring queue hands values over in bursts, with many threads or one thread on a side. Each read and each
 * change of a word that threads share is a step. The steps come in the order that acquire and release keep: a thread
 * reads its own head, then the other side's tail, then uses the slots, and then stores its own tail.
 *
 * Positions are counters of three bits, which wrap during the search. There are fewer values than positions, so that
 * no head returns to a value that a thread has read long ago; in the library, counters of 32 bits prevent that.
 *
 * A thread that is alone on its side keeps the other side's tail as it last read it. The library keeps the room that
 * this leaves, which is equivalent.
 *
 * A FAULT_ definition seeds one fault, which the check has to find.
 */

#ifdef FAULT_SEEN_ONCE
#define PRODUCERS 1
#define CONSUMERS 1
#endif
#ifdef FAULT_TAIL_BEFORE_TAKEN
#define SLOTS 2
#endif
#ifndef PRODUCERS
#define PRODUCERS 2
#endif
#ifndef CONSUMERS
#define CONSUMERS 2
#endif
#ifndef SLOTS
#define SLOTS 4
#endif
#ifndef VALUES
#define VALUES 5
#endif
#define MASK (SLOTS - 1)
#define SLOT(position) ((position) & MASK)
#define WRAP(position) ((position) & 7)
#define START 6
#define END WRAP(START + VALUES)

#if defined FAULT_FREE_FROM_HEAD
#define FREED consumers.head
#elif defined FAULT_FREE_READ_FIRST
#define FREED seen
#else
#define FREED consumers.tail
#endif
#if defined FAULT_ENTRIES_FROM_HEAD
#define FILLED producers.head
#elif defined FAULT_ENTRIES_READ_FIRST
#define FILLED seen
#else
#define FILLED producers.tail
#endif
#ifdef FAULT_SIZE_FOR_MASK
#define CAPACITY SLOTS
#else
#define CAPACITY MASK
#endif

typedef side {
  byte head = START;
  byte tail = START
}
side producers, consumers;
byte slot[SLOTS]; /* taking a value leaves 0 */
byte due[SLOTS];  /* the value that a claimed slot will hold, until it is taken */
byte taken;

inline check_order() {
  assert(WRAP(producers.head - consumers.tail) <= MASK);
  assert(WRAP(producers.tail - consumers.tail) <= WRAP(producers.head - consumers.tail));
  assert(WRAP(consumers.head - consumers.tail) <= WRAP(producers.tail - consumers.tail))
}

/* Clears variables that are no longer needed, because their values would only multiply the states. */
inline forget() {
  h = 0;
  k = 0
}

inline read_head(own, wanted) {
  h = own.head;
  if
  :: k = 1
  :: wanted > 1 -> k = 2
  fi
}

/* How much a claim may take: `at_equal` if the own head equals the other side's tail. */
#define LEFT WRAP(seen + at_equal - h)

/* A thread that is alone on its side reads the other side's tail only if what it read last leaves too little. */
#if defined FAULT_SEEN_ONCE
#define SEEN_DOES(threads) true
#elif defined FAULT_SEEN_BY_MANY
#define SEEN_DOES(threads) (LEFT >= k)
#else
#define SEEN_DOES(threads) (threads == 1 && LEFT >= k)
#endif

inline limit(own, other, other_tail, at_equal, threads) {
  if
  :: SEEN_DOES(threads)
  :: else -> seen = other_tail
  fi;
  /* If the head has moved on, the claim will fail, whatever was read. */
  assert(own.head != h || (LEFT <= MASK && (LEFT >= k || LEFT == WRAP(other.tail + at_equal - h))));
#ifndef FAULT_CLAIM_NOT_LIMITED
  k = (LEFT < k -> LEFT : k);
#endif
#ifndef FAULT_SEEN_BY_MANY
  seen = (threads == 1 -> seen : START);
#endif
  if
  :: k == 0 ->
    forget();
    goto end_none
  :: else
  fi
}

inline compare_and_swap(own) {
#ifndef FAULT_HEAD_STORED
  if
  :: own.head == h
  :: own.head != h ->
    forget();
    goto end_next
  fi;
#endif
  own.head = WRAP(h + k);
  check_order()
}

/* This is one step, because no other thread stores the tail while it equals h. */
inline await_and_store_tail(own) {
#ifndef FAULT_TAIL_NOT_AWAITED
  own.tail == h;
#endif
  own.tail = WRAP(h + k);
  check_order()
}

proctype producer(byte value; byte last) {
  byte h, k, i, seen = START;
end_next:
  atomic {
    value <= last;
#ifdef FAULT_FREE_READ_FIRST
    seen = consumers.tail
  }
  atomic {
#endif
    read_head(producers, last - value + 1)
  }
  atomic { limit(producers, consumers, FREED, CAPACITY, PRODUCERS) }
  atomic {
    compare_and_swap(producers);
    for (i : 0 .. k - 1) {
      assert(due[SLOT(h + i)] == 0);
      due[SLOT(h + i)] = value + i
    }
    i = 0
  }
#ifdef FAULT_TAIL_BEFORE_VALUES
  atomic { await_and_store_tail(producers) }
#endif
copy:
  atomic {
    assert(slot[SLOT(h + i)] == 0);
    slot[SLOT(h + i)] = value;
    value++;
    i = (i + 1) % k;
    if
    :: i != 0 -> goto copy
    :: i == 0
    fi
  }
  atomic {
#ifndef FAULT_TAIL_BEFORE_VALUES
    await_and_store_tail(producers);
#endif
    forget();
    goto end_next
  }
end_none: /* a call without a result is not repeated before there is room */
  WRAP(consumers.tail + MASK - producers.head) != 0 -> goto end_next
}

proctype consumer() {
  byte h, k, i, value, seen = START;
  byte latest[PRODUCERS];
end_next:
#ifdef FAULT_ENTRIES_READ_FIRST
  seen = producers.tail;
#endif
  atomic { read_head(consumers, 2) }
#ifdef FAULT_VALUE_READ_FIRST
  value = slot[SLOT(h)];
#endif
  atomic { limit(consumers, producers, FILLED, 0, CONSUMERS) }
  atomic { compare_and_swap(consumers) }
#ifdef FAULT_TAIL_BEFORE_TAKEN
  atomic { await_and_store_tail(consumers) }
#endif
copy:
  atomic {
#ifndef FAULT_VALUE_READ_FIRST
    value = slot[SLOT(h + i)];
#endif
    assert(value != 0 && value == due[SLOT(h + i)] && value > latest[value / 8]);
    latest[value / 8] = value;
    value = 0;
    slot[SLOT(h + i)] = 0;
    due[SLOT(h + i)] = 0;
    taken++;
    i = (i + 1) % k;
    if
    :: i != 0 -> goto copy
    :: i == 0
    fi
  }
  atomic {
#ifndef FAULT_TAIL_BEFORE_TAKEN
    await_and_store_tail(consumers);
#endif
    forget();
    goto end_next
  }
end_none:
  producers.tail != consumers.head -> goto end_next
}

init {
  byte i;
  atomic {
    for (i : 0 .. PRODUCERS - 1) { run producer(8 * i + 1, 8 * i + (VALUES + i) / PRODUCERS) }
    for (i : 1 .. CONSUMERS) { run consumer() }
    i = 0
  }
  taken == VALUES && consumers.tail == END;
  assert(producers.head == END && producers.tail == END && consumers.head == END)
}
