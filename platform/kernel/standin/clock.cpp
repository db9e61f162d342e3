// The commands for time, served from the clock and the zone of this machine.
#include <time.h>

#include "commands.h"

namespace zut {
namespace {

// Stores the seconds that a wall clock of the zone shows at `utc`, daylight saving included. A moment that the zone
// would put before 1970 is stored as it is.
long store_zone_time(uint64_t utc, uint64_t target) {
  tzset();  // localtime_r alone may miss a change of the zone
  const time_t moment = static_cast<time_t>(utc);
  tm fields;
  if (localtime_r(&moment, &fields) == nullptr) {
    return -1;
  }
  const uint64_t shown = utc + static_cast<uint64_t>(fields.tm_gmtoff);
  const bool before_1970 = fields.tm_gmtoff < 0 && shown > utc;
  return store<uint64_t>(target, before_1970 ? utc : shown);
}

uint64_t seconds_now() { return static_cast<uint64_t>(time(nullptr)); }

}  // namespace

long zone_time_now(const Call& call) { return store_zone_time(seconds_now(), call.a); }

long zone_time_of(const Call& call) {
  return given(call.a) ? store_zone_time(load<uint64_t>(call.a), call.b) : fail(EFAULT);
}

long utc_now(const Call& call) { return store<uint64_t>(call.a, seconds_now()); }

}  // namespace zut
