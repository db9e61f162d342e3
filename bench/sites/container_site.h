/* The trees as tirn/containers.hpp compiles them into a program, called in the same way as the peers. */
#ifndef TIRN_BENCH_CONTAINER_SITE_H
#define TIRN_BENCH_CONTAINER_SITE_H

#include "peers/peers.h"

extern "C" {
extern PEER const peer_set site_rb;
extern PEER const peer_set site_avl;
}

#endif
