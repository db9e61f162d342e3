// Bounds-checked copying and filling of memory.
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "bounded.h"
#include "region.h"

namespace {

using tirn::bounded::check_destination;
using tirn::bounded::overlap;

int copy(void* destination, size_t size, const void* source, size_t count, bool may_overlap) {
  if (const int error = check_destination(destination, size)) {
    return error;
  }
  int error = 0;
  if (source == nullptr) {
    error = EINVAL;
  } else if (count > size) {
    error = ERANGE;
    // A copy of a region onto itself is no error: the bytes are there already.
  } else if (!may_overlap && source != destination && overlap(destination, count, source, count)) {
    error = EINVAL;
  }
  if (error) {
    memset(destination, 0, size);
  } else {
    memmove(destination, source, count);
  }
  return error;
}

}  // namespace

int memcpy_s(void* destination, size_t size, const void* source, size_t count) {
  return copy(destination, size, source, count, false);
}

int memmove_s(void* destination, size_t size, const void* source, size_t count) {
  return copy(destination, size, source, count, true);
}

int memset_s(void* destination, size_t size, int value, size_t count) {
  if (const int error = check_destination(destination, size)) {
    return error;
  }
  const bool fits = count <= size;
  memset(destination, fits ? value : 0, fits ? count : size);
  // Callers wipe secrets with this. The barrier keeps the compiler from removing stores that nobody reads.
  asm volatile("" : : "r"(destination) : "memory");
  return fits ? 0 : ERANGE;
}
