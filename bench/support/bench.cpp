// Collects the groups of all families.
#include "support/bench.h"

#include <algorithm>

namespace tirn::bench {
namespace {

using Groups = std::vector<Group> (*)();

std::vector<Groups>& families() {
  static std::vector<Groups> list;
  return list;
}

}  // namespace

Family::Family(Groups groups) { families().push_back(groups); }

std::vector<Group> all_groups() {
  std::vector<Group> all;
  for (const Groups groups : families()) {
    for (Group& group : groups()) {
      all.push_back(std::move(group));
    }
  }
  return all;
}

}  // namespace tirn::bench
