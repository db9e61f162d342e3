/* The containers in calls of the shape of the peers': what their users compile into their own code stands in them. */
#ifndef TIRN_BENCH_CONTAINER_SITE_H
#define TIRN_BENCH_CONTAINER_SITE_H

#include "peers/peers.h"

extern "C" {
extern PEER const peer_set site_rb;        /* a descent of the caller's own */
extern PEER const peer_set site_avl;       /* a compare function that the library calls */
extern PEER const peer_set site_typed_avl; /* the comparison inlined by tirn/containers.hpp */
extern PEER const peer_set site_hash;
}

#endif
