// The bytes that each module holds.
#ifndef TIRN_MEM_MEM_COUNTERS_H
#define TIRN_MEM_MEM_COUNTERS_H

#include <cstdint>

namespace tirn {

// The counter of a module, or nullptr while the kernel side offers no table. Ids out of range share counter 0.
int64_t* counter_of(uint32_t pid);

}  // namespace tirn

#endif
