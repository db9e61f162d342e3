/* Readers of INI files, behind one shape of call. */
#ifndef TIRN_BENCH_PEERS_INI_H
#define TIRN_BENCH_PEERS_INI_H

#include "peers/peers.h"

#ifdef __cplusplus
extern "C" {
#endif

struct peer_ini {
  const char* name;
  void* (*load)(const char* path);
  void (*drop)(void* file);
  /* The length of an item's value, 0 where it is missing; `key` is "section:item". NULL where nothing is kept. */
  unsigned long (*find)(void* file, const char* section, const char* item, const char* key);
};

/* NULL where this build has not found its library. */
PEER const struct peer_ini* peer_ini_named(const char* name);

#ifdef __cplusplus
}
#endif

#endif
