// Declares the groups of CPU partitions that were read, and walks over them.
#ifndef TIRN_CPU_CPUM_GROUPS_H
#define TIRN_CPU_CPUM_GROUPS_H

#include "tirn/cpu.h"

namespace tirn::cpu {

inline constexpr uint32_t kLastCpu = 1023;  // the last bit of a mask

extern kesa_list_head g_groups;

// Calls visit(group, partition) for each partition, in the file's order. The partitions must have been read; after
// that they do not change, so no lock is taken.
template <typename Visit>
void for_each_partition(Visit visit) {
  for (kesa_list_head* group = g_groups.next; group != &g_groups; group = group->next) {
    auto& owner = *reinterpret_cast<kesa_cpu_group*>(group);
    for (kesa_list_head* link = owner.partitions.next; link != &owner.partitions; link = link->next) {
      visit(owner, *reinterpret_cast<kesa_cpu_partition*>(link));
    }
  }
}

}  // namespace tirn::cpu

#endif
