// Declares the rows of the table of module names: the components of a node, by module id.
#ifndef TIRN_INIT_MODULE_NAMES_H
#define TIRN_INIT_MODULE_NAMES_H

#include <cstddef>
#include <cstdint>

namespace tirn {

struct ModuleNameRow {
  uint16_t id;
  const char* name;
};

// 220 rows; ids are distinct and below TIRN_MODULE_COUNT.
inline constexpr size_t kModuleNameRows = 220;
extern const ModuleNameRow (&ModuleNameRows)[kModuleNameRows];

}  // namespace tirn

#endif
