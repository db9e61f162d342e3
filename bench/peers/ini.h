/* Readers of INI files, called in one way. */
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
  /* Returns the length of an item's value, or 0 if it is missing. `key` is "section:item". NULL for a reader that
   * keeps no items. */
  unsigned long (*find)(void* file, const char* section, const char* item, const char* key);
};

/* Returns NULL if this build has not found the library. */
PEER const struct peer_ini* peer_ini_named(const char* name);

#ifdef __cplusplus
}
#endif

#endif
