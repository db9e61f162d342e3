// Declares the list of the NUMA nodes that were read.
#ifndef TIRN_CPU_NUMAM_H
#define TIRN_CPU_NUMAM_H

#include <atomic>

#include "tirn/cpu.h"

namespace tirn::cpu {

extern kesa_list_head g_nodes;
extern std::atomic<int32_t> g_node_count;

inline kesa_numa_node& node_of(kesa_list_head* link) { return *reinterpret_cast<kesa_numa_node*>(link); }

}  // namespace tirn::cpu

#endif
