// Argument checks that the memory and text functions share.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace tirn::bounded {

// Returns 0, or the error if nothing may be written to the destination. No object is larger than PTRDIFF_MAX; such a
// size is a negative number that was converted to size_t.
inline int check_destination(const void* destination, size_t size) {
  if (destination == nullptr) {
    return EINVAL;
  }
  return size == 0 || size > PTRDIFF_MAX ? ERANGE : 0;
}

inline bool overlap(const void* a, size_t a_count, const void* b, size_t b_count) {
  const auto first = reinterpret_cast<uintptr_t>(a);
  const auto second = reinterpret_cast<uintptr_t>(b);
  return second - first < a_count || first - second < b_count;
}

}  // namespace tirn::bounded
