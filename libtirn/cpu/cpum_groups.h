// The groups of CPU partitions, as they were read.
#ifndef TIRN_CPU_CPUM_GROUPS_H
#define TIRN_CPU_CPUM_GROUPS_H

#include "tirn/cpu.h"

namespace tirn::cpu {

inline constexpr uint32_t kLastCpu = 1023;  // of a mask

extern kesa_list_head g_groups;

// Calls visit(group, partition) in the file's order. Only after the partitions were read: they do not change then.
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
