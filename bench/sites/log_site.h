/* A log call as in the library's code, and functions of the same shape around other calls. */
#ifndef TIRN_BENCH_LOG_SITE_H
#define TIRN_BENCH_LOG_SITE_H

#include <stdint.h>

#define SITE extern "C" __attribute__((visibility("default")))

SITE void site_debug_line(uint32_t number);
SITE void site_two_loads(uint32_t number);
SITE void site_empty_call(uint32_t number);

#endif
