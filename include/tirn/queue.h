/*
 * A ring of 64-bit values, first in first out and of fixed size. It passes work between the threads of one process
 * without a lock. Each of its two sides, producers and consumers, has one thread or many; a side with a single thread
 * uses no atomic read-modify-write.
 *
 * A thread that takes a value out sees everything that was written before the value was put in. The calls order
 * nothing else: if consumers sleep when they find the ring empty, both sides need a fence of their own. On a side
 * with many threads, calls complete in the order in which they claimed their positions. A thread that is preempted
 * during a call therefore delays the later ones on its side: each of these reads the tail up to 0x8000000 times,
 * yields, and starts again. A signal handler must not use a side that the interrupted thread may be using. A bulk or
 * burst of 0 values does nothing and returns 0.
 */
#ifndef TIRN_QUEUE_H
#define TIRN_QUEUE_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/*
 * Which sides are used by one thread at a time. KESA_RING_SINGLE_PRODUCER and KESA_RING_SINGLE_CONSUMER may be
 * combined with "or"; KESA_RING_SINGLE_BOTH, given alone, means both and is stored as 3. Other bits are stored and
 * have no meaning.
 */
#define KESA_RING_MANY 0u
#define KESA_RING_SINGLE_PRODUCER 1u
#define KESA_RING_SINGLE_CONSUMER 2u
#define KESA_RING_SINGLE_BOTH 4u

#define KESA_RING_MAX_COUNT 0x0FFFFFFFu

/* Set in the result of kesa_ring_enqueue_burst if the ring is above its watermark. */
#define KESA_RING_ABOVE_WATERMARK 0x80000000u

/*
 * Positions count up and wrap at 2^32; the slot of a position is the position & `mask`. A side claims positions by
 * moving its head, and passes them to the other side by moving its tail after them. One slot always stays empty.
 * `spare` is used by a side with a single thread only: the number of positions that it may claim before it has to
 * read the tail of the other side again.
 */
struct kesa_ring_producer {
  uint32_t watermark; /* `size`; no call changes it. At most `mask` slots are used, so it is never exceeded */
  uint32_t singleProducer;
  uint32_t size;
  uint32_t mask;
  uint32_t head;
  uint32_t tail;
  uint32_t spare;
};

struct kesa_ring_consumer {
  uint32_t singleConsumer; /* 2 if a single thread consumes, 0 if not */
  uint32_t size;
  uint32_t mask;
  uint32_t head;
  uint32_t tail;
  uint32_t spare;
};

/*
 * The header of the ring; the slots follow it. Each group of fields begins at a multiple of 128 bytes from the start,
 * so the two sides never write to the same cache line of 64 bytes, nor, in most blocks, to the same one of 128 bytes.
 */
struct kesa_ring {
  uint32_t flags;
  uint32_t unused_1[31];
  struct kesa_ring_producer producer;
  uint32_t unused_2[25];
  struct kesa_ring_consumer consumer;
  uint32_t unused_3[26];
  uint32_t size; /* never read, like the rest of this group */
  uint32_t mask;
  uint32_t zero[2];
  uint32_t unused_4[28];
};

/*
 * Makes an empty ring of `count` slots for up to `count` - 1 values. `count` is a power of two up to
 * KESA_RING_MAX_COUNT.
 * @returns the ring, or NULL for any other count, which is logged, or if there is no memory.
 * @safety MT-Safe, AS-Unsafe heap lock (for its log line)
 */
TIRN_API struct kesa_ring* kesa_ring_create(uint32_t count, uint32_t flags);

/*
 * Frees the ring and stores NULL in `*ring`. No thread may be using the ring. Does nothing if `ring` or `*ring` is
 * NULL.
 * @safety MT-Unsafe race:ring, AS-Unsafe heap
 */
TIRN_API void kesa_ring_delete(struct kesa_ring** ring);

/*
 * Puts a value in.
 * @returns 0; -ENOBUFS if the ring is full; -EDQUOT, with the value in the ring, if the ring is above its watermark;
 * -1 for a NULL ring, which is logged.
 * @safety MT-Safe (a single side: MT-Unsafe race:ring), AS-Unsafe lock
 */
TIRN_API int kesa_ring_enqueue(struct kesa_ring* ring, uint64_t value);

/*
 * Takes the oldest value out.
 * @returns 0; -ENOENT if the ring is empty; -1 for a NULL ring, which is logged.
 * @safety MT-Safe (a single side: MT-Unsafe race:ring), AS-Unsafe lock
 */
TIRN_API int kesa_ring_dequeue(struct kesa_ring* ring, uint64_t* value);

/*
 * Puts n values in, one directly after the other, or none. No pointer is checked.
 * @returns 0; -ENOBUFS if there is no room for all of them; -EDQUOT, with the values in the ring, if the ring is
 * above its watermark.
 * @safety MT-Safe (a single side: MT-Unsafe race:ring), AS-Unsafe lock
 */
TIRN_API int kesa_ring_enqueue_bulk(struct kesa_ring* ring, const uint64_t* values, uint32_t n);

/*
 * Takes the n oldest values out, or none. No pointer is checked.
 * @returns 0; -ENOENT if there are fewer.
 * @safety MT-Safe (a single side: MT-Unsafe race:ring), AS-Unsafe lock
 */
TIRN_API int kesa_ring_dequeue_bulk(struct kesa_ring* ring, uint64_t* values, uint32_t n);

/*
 * Puts the first of n values in, one directly after the other, as many as there is room for. No pointer is checked.
 * @returns the number of values put in, with KESA_RING_ABOVE_WATERMARK set if the ring is above its watermark.
 * @safety MT-Safe (a single side: MT-Unsafe race:ring), AS-Unsafe lock
 */
TIRN_API uint32_t kesa_ring_enqueue_burst(struct kesa_ring* ring, const uint64_t* values, uint32_t n);

/*
 * Takes the oldest values out, up to n. No pointer is checked.
 * @returns the number of values taken out.
 * @safety MT-Safe (a single side: MT-Unsafe race:ring), AS-Unsafe lock
 */
TIRN_API uint32_t kesa_ring_dequeue_burst(struct kesa_ring* ring, uint64_t* values, uint32_t n);

/*
 * The state of a ring. Other threads can make a result out of date before the caller uses it. A result can also be
 * wrong from the start, since the positions of the two sides are read one after the other. A NULL ring is logged.
 */

/*
 * Checks whether the ring has no free slot.
 * @returns 1 if it is full, 0 if not, UINT32_MAX for NULL.
 * @safety MT-Safe, AS-Safe (but for NULL)
 */
TIRN_API uint32_t kesa_ring_full(const struct kesa_ring* ring);

/*
 * Checks whether the ring has no value.
 * @returns 1 if it is empty, 0 if not, UINT32_MAX for NULL.
 * @safety MT-Safe, AS-Safe (but for NULL)
 */
TIRN_API uint32_t kesa_ring_empty(const struct kesa_ring* ring);

/*
 * Counts the values in the ring.
 * @returns their number, or UINT32_MAX for NULL.
 * @safety MT-Safe, AS-Safe (but for NULL)
 */
TIRN_API uint32_t kesa_ring_count(const struct kesa_ring* ring);

/*
 * Counts the values that there is still room for.
 * @returns their number, or UINT32_MAX for NULL.
 * @safety MT-Safe, AS-Safe (but for NULL)
 */
TIRN_API uint32_t kesa_ring_free_count(const struct kesa_ring* ring);

/*
 * Counts the slots, one of which always stays empty.
 * @returns their number, or UINT32_MAX for NULL.
 * @safety MT-Safe, AS-Safe (but for NULL)
 */
TIRN_API uint32_t kesa_ring_size(const struct kesa_ring* ring);

TIRN_EXTERN_C_END

#endif
