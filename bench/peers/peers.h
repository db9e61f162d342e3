/* The peers that are not called as they are: headers, plain ways to do the same, and libraries that this machine may
 * lack. Each stands behind a call. */
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

/* ISA-L's checksums, as they are. */
struct peer_checksums {
  unsigned (*crc32_iscsi)(const void* bytes, int length, unsigned crc);
  uint16_t (*crc16_t10dif)(uint16_t crc, const void* bytes, uint64_t length);
  uint16_t (*crc16_t10dif_copy)(uint16_t crc, void* destination, const void* source, uint64_t length);
};

/* NULL where this machine lacks it. */
PEER const struct peer_checksums* peer_checksums_found(void);

/* Reads so many bytes, in whole blocks of 128, and does next to nothing with them. */
PEER uint64_t peer_read(const void* bytes, uint64_t length);

/* A lock with its record. */
struct peer_lock {
  const char* name;
  void* lock;
  void (*take)(void* lock);
  void (*give)(void* lock);
};

/* NULL where this build has not found its library. */
PEER const struct peer_lock* peer_lock_named(const char* name);

typedef void* (*peer_job)(void* arg);

/* What runs jobs on threads of its own, one after the other. */
struct peer_pool {
  const char* name;
  void (*start)(peer_job job, void* arg);
  void (*settle)(void); /* to be called after each job, by the thread that started it; may be NULL */
  unsigned pause;       /* us until its threads sleep again */
};

/* NULL where this build has not found its library. */
PEER const struct peer_pool* peer_pool_named(const char* name);

/* A container of objects with distinct keys. An object has PEER_OBJECT_SIZE bytes and lies at a multiple of them. */
#define PEER_OBJECT_SIZE 64
struct peer_set {
  const char* name;
  void (*make)(uint32_t bits);               /* once, for about 2^bits objects */
  void (*begin)(void* object, uint64_t key); /* makes the object */
  void (*insert)(void* object, uint64_t key);
  void* (*find)(uint64_t key); /* not NULL if it is there */
  void* (*next)(void* object); /* of a tree */
  void (*erase)(void* object, uint64_t key);
};

/* NULL where this build has not found its library. */
PEER const struct peer_set* peer_set_named(const char* name);

/* A ring of PEER_RING_SLOTS values, one less of which it holds. The functions give the number of values that went. */
#define PEER_RING_SLOTS 1024
struct peer_ring {
  const char* name;
  void* (*make)(void);
  int (*push)(void* ring, uint64_t value);
  int (*pop)(void* ring, uint64_t* value);
  unsigned (*push_burst)(void* ring, const uint64_t* values, unsigned n); /* NULL where it has none */
  unsigned (*pop_burst)(void* ring, uint64_t* values, unsigned n);
};

/* NULL where this build has not found its library. */
PEER const struct peer_ring* peer_ring_named(const char* name);

#ifdef __cplusplus
}
#endif

#endif
