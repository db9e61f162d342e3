/* The peers that are not called directly: headers, plain ways to do the same, and libraries that this machine may not
 * have. Each is wrapped in a function. */
#ifndef TIRN_BENCH_PEERS_H
#define TIRN_BENCH_PEERS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PEER __attribute__((visibility("default")))

/* Does nothing, which shows the cost of a call. */
PEER void peer_empty(uint32_t a, uint32_t b);

/* Does two loads that do not depend on each other, and a branch. Returns 0 or -1. */
PEER int peer_two_loads(uint32_t row, uint32_t bound);

/* Tests a flag and does one load. */
PEER uint64_t peer_flag_and_load(void);

/* Reads the processor's counter, unscaled. */
PEER uint64_t peer_raw_counter(void);

/* Reads std::chrono's monotonic clock, in ns. */
PEER int64_t peer_steady_clock(void);

/* Search bit by bit or word by word. Return the lowest set bit of a map, or `size`. */
PEER uint64_t peer_first_bit_by_bits(const void* map, uint64_t size);
PEER uint64_t peer_first_bit_by_words(const void* map, uint64_t size);

/* Search a std::bitset of one size. */
PEER uint64_t peer_first_bit_bitset_256(const void* map);
PEER uint64_t peer_first_bit_bitset_65536(const void* map);

/* ISA-L's checksum functions. */
struct peer_checksums {
  unsigned (*crc32_iscsi)(const void* bytes, int length, unsigned crc);
  uint16_t (*crc16_t10dif)(uint16_t crc, const void* bytes, uint64_t length);
  uint16_t (*crc16_t10dif_copy)(uint16_t crc, void* destination, const void* source, uint64_t length);
};

/* Returns NULL if this machine does not have the library. */
PEER const struct peer_checksums* peer_checksums_found(void);

/* Reads `length` bytes, in whole blocks of 128, and only combines them. */
PEER uint64_t peer_read(const void* bytes, uint64_t length);

/* A lock with its record. */
struct peer_lock {
  const char* name;
  void* lock;
  void (*take)(void* lock);
  void (*give)(void* lock);
};

/* Returns NULL if this build has not found the library. */
PEER const struct peer_lock* peer_lock_named(const char* name);

typedef void* (*peer_job)(void* arg);

#define PEER_FLOOD_MOST 50000

/* Runs jobs on threads of its own. */
struct peer_pool {
  const char* name;
  void (*start)(peer_job job, void* arg);
  void (*settle)(void); /* called after each job by the thread that started it; may be NULL */
  unsigned pause;       /* us until its threads sleep again after a job */
  /* Queues a job `count` times, at most PEER_FLOOD_MOST. settle is called once all have run. NULL: no queue. */
  void (*flood)(peer_job job, void* arg, unsigned count);
};

/* Returns NULL if this build has not found the library. */
PEER const struct peer_pool* peer_pool_named(const char* name);

/* A container of objects with distinct keys. An object has PEER_OBJECT_SIZE bytes and is aligned to that size. */
#define PEER_OBJECT_SIZE 64
struct peer_set {
  const char* name;
  void (*make)(uint32_t bits);               /* makes the container, once, for about 2^bits objects */
  void (*begin)(void* object, uint64_t key); /* makes the object */
  void (*insert)(void* object, uint64_t key);
  void* (*find)(uint64_t key); /* NULL if there is no such object */
  void* (*next)(void* object); /* trees only */
  void (*erase)(void* object, uint64_t key);
};

/* Returns NULL if this build has not found the library. */
PEER const struct peer_set* peer_set_named(const char* name);

/* A ring with PEER_RING_SLOTS slots, which holds one value less. The functions return how many values were moved. */
#define PEER_RING_SLOTS 1024
struct peer_ring {
  const char* name;
  void* (*make)(void);
  int (*push)(void* ring, uint64_t value);
  int (*pop)(void* ring, uint64_t* value);
  unsigned (*push_burst)(void* ring, const uint64_t* values, unsigned n); /* NULL if there is none */
  unsigned (*pop_burst)(void* ring, uint64_t* values, unsigned n);
};

/* Returns NULL if this build has not found the library. */
PEER const struct peer_ring* peer_ring_named(const char* name);

/* One-shot timers of milliseconds on a loop of their own, which runs only when it is told to. */
struct peer_timers {
  const char* name;
  void (*make)(uint32_t count);                         /* makes the loop and its timers, none of them started */
  void (*start)(uint32_t index, uint64_t milliseconds); /* also for a timer that is pending */
  void (*stop)(uint32_t index);
  uint64_t (*run)(void); /* runs the timers that are due; returns how many there were */
};

/* Returns NULL if this build has not found the library. */
PEER const struct peer_timers* peer_timers_named(const char* name);

#ifdef __cplusplus
}
#endif

#endif
