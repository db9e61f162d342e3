/*
 * A ring of 64-bit values, first in first out and of a fixed size, which hands work from thread to thread of one process
 * without a lock. Each side, those who put values in and those who take them out, is one thread or many: what is single
 * needs no atomic read-modify-write.
 *
 * Who takes a value out sees all that was written before it was put in. The calls order nothing else: a consumer that
 * is to sleep when it finds the ring empty wants a fence of its own on both sides. With many threads a side completes
 * in the order of its claims, so one that loses its processor in the midst of a call stops those behind it on its side:
 * each spins for some 0x8000000 looks, yields, and spins again. A signal handler must not use a side that the
 * interrupted thread may be using. A bulk or a burst of no values gives 0 and does nothing.
 */
#ifndef TIRN_QUEUE_H
#define TIRN_QUEUE_H

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* The sides that one thread uses at a time. SINGLE_PRODUCER and SINGLE_CONSUMER may be or-ed; SINGLE_BOTH alone is that,
 * and is stored as 3. Other bits are stored and mean nothing. */
#define KESA_RING_MANY 0u
#define KESA_RING_SINGLE_PRODUCER 1u
#define KESA_RING_SINGLE_CONSUMER 2u
#define KESA_RING_SINGLE_BOTH 4u

#define KESA_RING_MAX_COUNT 0x0FFFFFFFu

/* Set in the result of kesa_ring_enqueue_burst where the ring has come above its watermark. */
#define KESA_RING_ABOVE_WATERMARK 0x80000000u

/*
 * Positions run freely and wrap at 2^32; the slot of one is what `mask` leaves of it. A side claims positions by moving
 * its head, and gives them to the other by moving its tail behind them. One slot stays empty. `spare` is a single side's
 * own: the positions that it may claim before it has to look at the other side's tail again.
 */
struct kesa_ring_producer {
  uint32_t watermark; /* `size`, which no call changes: as no more than `mask` are ever used, it is never passed */
  uint32_t singleProducer;
  uint32_t size;
  uint32_t mask;
  uint32_t head;
  uint32_t tail;
  uint32_t spare;
};

struct kesa_ring_consumer {
  uint32_t singleConsumer; /* 2 for a single one */
  uint32_t size;
  uint32_t mask;
  uint32_t head;
  uint32_t tail;
  uint32_t spare;
};

/* The header of the block; the slots follow. Each group begins at a multiple of 128 bytes of it, so that no line of 64
 * bytes, and none of 128 in most blocks, is written by both sides. */
struct kesa_ring {
  uint32_t flags;
  uint32_t unused_1[31];
  struct kesa_ring_producer producer;
  uint32_t unused_2[25];
  struct kesa_ring_consumer consumer;
  uint32_t unused_3[26];
  uint32_t size; /* read by nothing, as the rest of this group */
  uint32_t mask;
  uint32_t zero[2];
  uint32_t unused_4[28];
};

/* Makes an empty ring of `count` slots, a power of two up to KESA_RING_MAX_COUNT, for up to `count` - 1 values. NULL for
 * another count, which is logged, or where there is no memory.
 * @safety MT-Safe, AS-Unsafe heap lock (for its log line) */
TIRN_API struct kesa_ring* kesa_ring_create(uint32_t count, uint32_t flags);

/* Frees the ring, which nobody may be using, and stores NULL. A NULL, of either kind, is left alone.
 * @safety MT-Unsafe race:ring, AS-Unsafe heap */
TIRN_API void kesa_ring_delete(struct kesa_ring** ring);

/* Puts a value in. 0; -ENOBUFS when full; -EDQUOT above the watermark, with the value in the ring; -1 for NULL, which
 * is logged.
 * @safety MT-Safe (a single side: MT-Unsafe race:ring), AS-Unsafe lock */
TIRN_API int kesa_ring_enqueue(struct kesa_ring* ring, uint64_t value);

/* Takes the oldest value out. 0; -ENOENT when empty; -1 for a NULL ring, which is logged.
 * @safety MT-Safe (a single side: MT-Unsafe race:ring), AS-Unsafe lock */
TIRN_API int kesa_ring_dequeue(struct kesa_ring* ring, uint64_t* value);

/* Puts n values in, side by side, or none. 0; -ENOBUFS where they have no room; -EDQUOT above the watermark, with the
 * values in the ring. No pointer is tested.
 * @safety MT-Safe (a single side: MT-Unsafe race:ring), AS-Unsafe lock */
TIRN_API int kesa_ring_enqueue_bulk(struct kesa_ring* ring, const uint64_t* values, uint32_t n);

/* Takes the n oldest values out, or none. 0; -ENOENT where there are less. No pointer is tested.
 * @safety MT-Safe (a single side: MT-Unsafe race:ring), AS-Unsafe lock */
TIRN_API int kesa_ring_dequeue_bulk(struct kesa_ring* ring, uint64_t* values, uint32_t n);

/* Puts the first of n values in, side by side, as many as have room. Their number, with KESA_RING_ABOVE_WATERMARK set
 * above the watermark. No pointer is tested.
 * @safety MT-Safe (a single side: MT-Unsafe race:ring), AS-Unsafe lock */
TIRN_API uint32_t kesa_ring_enqueue_burst(struct kesa_ring* ring, const uint64_t* values, uint32_t n);

/* Takes the oldest values out, up to n. Their number. No pointer is tested.
 * @safety MT-Safe (a single side: MT-Unsafe race:ring), AS-Unsafe lock */
TIRN_API uint32_t kesa_ring_dequeue_burst(struct kesa_ring* ring, uint64_t* values, uint32_t n);

/*
 * How the ring stands; what others do meanwhile can make it untrue before it is read, and two positions that were read
 * apart can make it wrong. UINT32_MAX for NULL, which is logged.
 */

/* 1 without a free slot, else 0.
 * @safety MT-Safe, AS-Safe (but for NULL) */
TIRN_API uint32_t kesa_ring_full(const struct kesa_ring* ring);

/* 1 without a value, else 0.
 * @safety MT-Safe, AS-Safe (but for NULL) */
TIRN_API uint32_t kesa_ring_empty(const struct kesa_ring* ring);

/* The values in the ring.
 * @safety MT-Safe, AS-Safe (but for NULL) */
TIRN_API uint32_t kesa_ring_count(const struct kesa_ring* ring);

/* The values that have room yet.
 * @safety MT-Safe, AS-Safe (but for NULL) */
TIRN_API uint32_t kesa_ring_free_count(const struct kesa_ring* ring);

/* The slots, one of which stays empty.
 * @safety MT-Safe, AS-Safe (but for NULL) */
TIRN_API uint32_t kesa_ring_size(const struct kesa_ring* ring);

TIRN_EXTERN_C_END

#endif
