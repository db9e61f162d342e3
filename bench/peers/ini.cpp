// Reads INI files by other libraries.
#include "peers/ini.h"

#include <cstdio>
#include <cstring>

#ifdef PEERS_GLIB
#include <glib.h>
#endif
#ifdef PEERS_INIH
#include <ini.h>
#endif
#ifdef PEERS_INIPARSER
#include <iniparser/iniparser.h>
#endif

namespace {

[[maybe_unused]] int counted;

constexpr peer_ini kReaders[] = {
#ifdef PEERS_GLIB
    {"GKeyFile",
     [](const char* path) -> void* {
       GKeyFile* const file = g_key_file_new();
       g_key_file_load_from_file(file, path, G_KEY_FILE_NONE, nullptr);
       return file;
     },
     [](void* file) { g_key_file_free(static_cast<GKeyFile*>(file)); },
     [](void* file, const char* section, const char* item, const char*) -> unsigned long {
       char* const value = g_key_file_get_value(static_cast<GKeyFile*>(file), section, item, nullptr);
       const size_t length = value == nullptr ? 0 : std::strlen(value);
       g_free(value);
       return length;
     }},
#endif
#ifdef PEERS_INIH
    {"inih, counting",
     [](const char* path) -> void* {
       ini_parse(
           path, [](void* count, const char*, const char*, const char*) { return ++*static_cast<int*>(count), 1; },
           &counted);
       return &counted;
     },
     [](void*) {}, nullptr},
#endif
#ifdef PEERS_INIPARSER
    {"iniparser", [](const char* path) -> void* { return iniparser_load(path); },
     [](void* file) { iniparser_freedict(static_cast<dictionary*>(file)); },
     [](void* file, const char*, const char*, const char* key) -> unsigned long {
       return std::strlen(iniparser_getstring(static_cast<dictionary*>(file), key, ""));
     }},
#endif
    {"fread",
     [](const char* path) -> void* {
       FILE* const file = std::fopen(path, "r");
       static char block[65536];
       while (std::fread(block, 1, sizeof block, file) != 0) {
       }
       std::fclose(file);
       return block;
     },
     [](void*) {}, nullptr},
};

}  // namespace

const peer_ini* peer_ini_named(const char* name) {
  for (const peer_ini& reader : kReaders) {
    if (std::strcmp(reader.name, name) == 0) {
      return &reader;
    }
  }
  return nullptr;
}
