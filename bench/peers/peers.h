/* The peers that have no library of their own: plain ways to do the same, each behind a call. */
#ifndef TIRN_BENCH_PEERS_H
#define TIRN_BENCH_PEERS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PEER __attribute__((visibility("default")))

/* Nothing: the cost of a call. */
PEER void peer_empty(uint32_t a, uint32_t b);

/* Two loads that do not depend on each other, and a branch. 0 or -1. */
PEER int peer_two_loads(uint32_t row, uint32_t bound);

/* A flag test and one load. */
PEER uint64_t peer_flag_and_load(void);

/* The processor's counter, unscaled. */
PEER uint64_t peer_raw_counter(void);

/* std::chrono's monotonic clock, ns. */
PEER int64_t peer_steady_clock(void);

/* The lowest set bit of a map, or `size`: bit by bit; by words. */
PEER uint64_t peer_first_bit_by_bits(const void* map, uint64_t size);
PEER uint64_t peer_first_bit_by_words(const void* map, uint64_t size);

/* std::bitset of one size. */
PEER uint64_t peer_first_bit_bitset_256(const void* map);
PEER uint64_t peer_first_bit_bitset_65536(const void* map);

#ifdef __cplusplus
}
#endif

#endif
