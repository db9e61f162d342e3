// Reads items of configuration files for the tables of CPUs and nodes.
#ifndef TIRN_CPU_CFG_VALUE_H
#define TIRN_CPU_CFG_VALUE_H

#include "tirn/cfg.h"

namespace tirn::cpu {

struct Value {
  char text[256];
};

// Reads an item of the registered file `path`, or of all registered files if that is NULL. Returns 0 or -1.
inline int read_value(const char* path, const char* section, const char* key, Value& value) {
  return path != nullptr ? kesa_cfg_getItemValue_ex(path, section, key, value.text, sizeof value.text)
                         : kesa_cfg_getItemValue(section, key, value.text, sizeof value.text);
}

}  // namespace tirn::cpu

#endif
