#include "imports.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace tirn::test {
namespace {

#if defined(__x86_64__)
constexpr uint32_t kFunctionRelocations[] = {R_X86_64_JUMP_SLOT, R_X86_64_GLOB_DAT, R_X86_64_64};
#elif defined(__aarch64__)
constexpr uint32_t kFunctionRelocations[] = {R_AARCH64_JUMP_SLOT, R_AARCH64_GLOB_DAT, R_AARCH64_ABS64};
#endif

bool is_function_address(uint32_t type) {
  return std::find(std::begin(kFunctionRelocations), std::end(kFunctionRelocations), type) !=
         std::end(kFunctionRelocations);
}

}  // namespace

Imports::Imports(Object object) {
  static constexpr const char* kNames[] = {"/libtirn.so", "/libhurn.so", "/libzut.so",
                                           ""};  // any name: the first object is the program
  const link_map* map = nullptr;
  dlinfo(dlopen(nullptr, RTLD_LAZY), RTLD_DI_LINKMAP, &map);
  while (map != nullptr && std::strstr(map->l_name, kNames[static_cast<int>(object)]) == nullptr) {
    map = map->l_next;
  }
  if (map == nullptr) {
    std::abort();
  }
  base_ = map->l_addr;
  uintptr_t entry[DT_NUM]{};
  for (const ElfW(Dyn)* at = map->l_ld; at->d_tag != DT_NULL; ++at) {
    if (at->d_tag < DT_NUM) {
      entry[at->d_tag] = at->d_un.d_ptr;
    }
  }
  const auto* const symbols = reinterpret_cast<const ElfW(Sym)*>(entry[DT_SYMTAB]);
  const auto* const names = reinterpret_cast<const char*>(entry[DT_STRTAB]);
  for (const auto& [table, size] : {std::pair{DT_RELA, DT_RELASZ}, std::pair{DT_JMPREL, DT_PLTRELSZ}}) {
    const auto* const begin = reinterpret_cast<const ElfW(Rela)*>(entry[table]);
    const auto* const end = begin + entry[size] / sizeof(ElfW(Rela));
    for (const auto* at = begin; at != end; ++at) {
      if (is_function_address(ELF64_R_TYPE(at->r_info)) && at->r_addend == 0) {
        auto** const address = reinterpret_cast<void**>(base_ + at->r_offset);
        slots_.push_back({names + symbols[ELF64_R_SYM(at->r_info)].st_name, address, nullptr});
      }
    }
  }
}

void* Imports::function(std::string_view name) const {
  for (const Slot& slot : slots_) {
    if (slot.name == name) {
      return __atomic_load_n(slot.address, __ATOMIC_ACQUIRE);
    }
  }
  return nullptr;
}

void Imports::point(std::string_view name, void* replacement) {
  const auto page_size = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  for (Slot& slot : slots_) {
    if (slot.name != name) {
      continue;
    }
    // The loader has made the pages of these addresses read-only.
    const uintptr_t page = reinterpret_cast<uintptr_t>(slot.address) & ~(page_size - 1);
    if (mprotect(reinterpret_cast<void*>(page), page_size, PROT_READ | PROT_WRITE) != 0) {
      std::abort();
    }
    void* const former = __atomic_exchange_n(slot.address, replacement, __ATOMIC_ACQ_REL);
    slot.former = slot.former == nullptr ? former : slot.former;
  }
}

Imports::~Imports() {
  for (const Slot& slot : slots_) {
    if (slot.former != nullptr) {
      __atomic_store_n(slot.address, slot.former, __ATOMIC_RELEASE);
    }
  }
}

}  // namespace tirn::test
