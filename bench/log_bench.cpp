// Measures a log call whose level is off.
#include "hurn.h"
#include "sites/log_site.h"
#include "support/bench.h"

namespace tirn::bench {
namespace {

const Family log_calls{[] {
  return std::vector<Group>{
      {.name = "log/debug_off",
       .target = 1.1,
       .ours = {"log line with its level off", one_thread([] { site_debug_line(1); })},
       .peers = {{"same function, two loads and a branch instead", one_thread([] { site_two_loads(1); })}},
       .shown = {{"same function, a call of an empty one instead", one_thread([] { site_empty_call(1); })},
                 {"hurn_level_check alone", one_thread([] { hurn_level_check(381, HURN_DEBUG); })}}},
  };
}};

}  // namespace
}  // namespace tirn::bench
