// The server's registered groups of commands.
#include <atomic>

#include "libtirn/base/bounds.h"
#include "libtirn/base/guard.h"
#include "libtirn/base/log.h"
#include "libtirn/base/result.h"
#include "tirn/syscall.h"

using namespace tirn;

namespace {

// The head of a group's block; `count` entries follow it.
struct alignas(MORU_SYSCALL_ENTRY) Group {
  MORU_SYSCALL_ENTRY* entries() { return reinterpret_cast<MORU_SYSCALL_ENTRY*>(this + 1); }
  uint32_t count;
};

// The releasing stores pair with the acquiring loads: a thread that finds a group also finds its entries.
constinit std::atomic<Group*> g_groups[MORU_SYSCALL_GROUPS];

bool group_exists(uint32_t group, const char* function) {
  if (group < MORU_SYSCALL_GROUPS) {
    return true;
  }
  TIRN_ERROR_AS(function, "Param 1 v_uiGroupId %d is larger than %d.", static_cast<int>(group),
                static_cast<int>(MORU_SYSCALL_GROUPS));
  return false;
}

bool entry_fits(uint32_t group, const MORU_SYSCALL_ENTRY& entry, const char* function) {
  if (entry.uiType > MORU_SYSCALL_INDIRECT) {
    TIRN_ERROR_AS(function, "Syscall type is wrong, it should be direct(%d) or indirect(%d).", MORU_SYSCALL_DIRECT,
                  MORU_SYSCALL_INDIRECT);
    return false;
  }
  if (entry.uiCmd >> 8 != group) {
    TIRN_ERROR_AS(function, "Syscall's cmd %d  is wrong, it should be v_uiGroupId(%d).",
                  static_cast<int>(entry.uiCmd), static_cast<int>(group));
    return false;
  }
  if (entry.pfnSysCall == nullptr) {
    return TIRN_ERROR_AS(function, "pfnSysCall is NULL."), false;
  }
  return true;
}

}  // namespace

int MORU_CheckGroupCalls(uint32_t group, const MORU_SYSCALL_ENTRY* calls, uint32_t count) {
  if (calls == nullptr) {
    return TIRN_ERROR("Parm 2(v_pstSysCalls) is NULL."), kFail;
  }
  if (count > MORU_SYSCALL_GROUP_ENTRIES) {
    TIRN_ERROR("Parm 3 %d is larger than %d.", static_cast<int>(count), static_cast<int>(MORU_SYSCALL_GROUP_ENTRIES));
    return kFail;
  }
  for (uint32_t i = 0; i < count; ++i) {
    if (!entry_fits(group, calls[i], __func__)) {
      return kFail;
    }
  }
  return kOk;
}

int MORU_RegSysCall(uint32_t group, const MORU_SYSCALL_ENTRY* calls, uint32_t count) {
  TIRN_INFO("MORU reg syscall begin.");
  TIRN_INFO("MORU reg syscall check groupid(%u).", group);
  if (!group_exists(group, __func__)) {
    return kFail;
  }
  if (MORU_CheckGroupCalls(group, calls, count) != kOk) {
    return TIRN_ERROR("Check the input param failed."), kFail;
  }
  TIRN_INFO("MORU reg syscall check rereg, uicount(%u).", count);
  if (g_groups[group].load(std::memory_order_acquire) != nullptr) {
    return TIRN_INFO("MORU register syscall %d.", static_cast<int>(group)), kFail;
  }
  TIRN_INFO("MORU reg syscall alloc memory.");
  const size_t entries_size = count * sizeof(MORU_SYSCALL_ENTRY);
  const size_t size = sizeof(Group) + entries_size;
  auto head = tagged_block<Group>(static_cast<uint32_t>(size));
  if (head == nullptr) {
    return TIRN_ERROR("Alloc memory for syscall group (%u) fail, count = (%u).", group, count), kFail;
  }
  if (const int result = memset_s(head.get(), size, 0, size); result != 0) {
    TIRN_ERROR("Memset failed, ret = %d.", result);
  }
  head->count = count;
  if (count != 0) {
    if (const int result = memcpy_s(head->entries(), entries_size, calls, entries_size); result != 0) {
      TIRN_ERROR("Memcpy failed, ret = %d.", result);
    }
  }
  g_groups[group].store(head.release(), std::memory_order_release);
  return kOk;
}

int MORU_UnRegSysCall(uint32_t group) {
  if (!group_exists(group, __func__)) {
    return kFail;
  }
  // The group leaves the table first: a lookup that starts now finds nothing rather than a freed block.
  if (Group* const head = g_groups[group].exchange(nullptr, std::memory_order_acq_rel); head != nullptr) {
    kesa_free(head);
  }
  return kOk;
}

const MORU_SYSCALL_ENTRY* MORU_FindSysCall(uint32_t cmd) {
  const uint32_t group = cmd >> 8;
  // Commands come from the network: a group number that is out of range counts as not registered.
  Group* const head = group < MORU_SYSCALL_GROUPS ? g_groups[group].load(std::memory_order_acquire) : nullptr;
  if (head == nullptr) {
    return TIRN_ERROR("Syscall not registered usr, cmd = (0x%x).", cmd), nullptr;
  }
  for (uint32_t i = 0; i < head->count; ++i) {
    if (head->entries()[i].uiCmd == cmd) {
      return &head->entries()[i];
    }
  }
  return nullptr;
}

int MORU_PrivateSysCallInit() {
  for (auto& group : g_groups) {
    group.store(nullptr, std::memory_order_release);
  }
  if (MORU_PrivateSysCallIntfInit() != kOk) {
    return TIRN_ERROR("Initial syscall interface fail."), kFail;
  }
  return kOk;
}

int MORU_SyscallInit() { return kOk; }
