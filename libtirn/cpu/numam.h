// Declares the list of the NUMA nodes that were read, and their number.
#ifndef TIRN_CPU_NUMAM_H
#define TIRN_CPU_NUMAM_H

#include <atomic>
#include <cstddef>

#include "tirn/cpu.h"

namespace tirn::cpu {

extern kesa_list_head g_nodes;             // the nodes that were read
extern std::atomic<int32_t> g_node_count;  // the number that the file states, which may differ after a failed read

static_assert(offsetof(kesa_numa_node, link) == 0, "node_of takes the address of `link` for that of the node");
inline kesa_numa_node& node_of(kesa_list_head* link) { return *reinterpret_cast<kesa_numa_node*>(link); }

}  // namespace tirn::cpu

#endif
