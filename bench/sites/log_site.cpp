// A log call as in the library's code.
#include "sites/log_site.h"

#include "libtirn/base/log.h"
#include "peers/peers.h"

void site_debug_line(uint32_t number) { TIRN_DEBUG("Number %u", number); }

void site_two_loads(uint32_t number) {
  if (peer_two_loads(tirn::kModule, tirn::kDebug) != 0) {
    TIRN_LOG_HERE(tirn::kError, __func__, "Number %u", number);
  }
}

void site_empty_call(uint32_t number) {
  peer_empty(tirn::kModule, tirn::kDebug);
  asm volatile("" : : "r"(number));
}
