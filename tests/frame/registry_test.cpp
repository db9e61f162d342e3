#include <gtest/gtest.h>

#include <vector>

#include "support/log_capture.h"
#include "tirn/syscall.h"

using tirn::test::LogCapture;

namespace {

int first(uint32_t, MORU_SYSCALL_PARAM*) { return 1; }
int second(uint32_t, MORU_SYSCALL_PARAM*) { return 2; }

std::vector<MORU_SYSCALL_ENTRY> entries_of(uint32_t group, uint32_t count) {
  std::vector<MORU_SYSCALL_ENTRY> entries;
  for (uint32_t i = 0; i < count; ++i) {
    entries.push_back({group << 8 | (i & 0xFF), i % 2, first});
  }
  return entries;
}

}  // namespace

TEST(Registry, RefusesWhatDoesNotFit) {
  const MORU_SYSCALL_ENTRY good{0x300, 0, first};
  const MORU_SYSCALL_ENTRY bad_type{0x301, 2, first};
  const MORU_SYSCALL_ENTRY bad_group{0x400, 0, first};
  const MORU_SYSCALL_ENTRY no_handler{0x302, 1, nullptr};
  struct Case {
    const char* name;
    std::vector<MORU_SYSCALL_ENTRY> entries;
    uint32_t count;
    const char* text;
  };
  const Case cases[] = {
      {"no array", {}, 1, "Parm 2(v_pstSysCalls) is NULL."},
      {"256 entries", entries_of(3, 256), 256, "Parm 3 256 is larger than 255."},
      {"type", {good, bad_type}, 2, "Syscall type is wrong, it should be direct(0) or indirect(1)."},
      {"group", {good, bad_group}, 2, "Syscall's cmd 1024  is wrong, it should be v_uiGroupId(3)."},
      {"handler", {good, no_handler}, 2, "pfnSysCall is NULL."},
  };
  for (const Case& c : cases) {
    LogCapture log;
    EXPECT_EQ(MORU_RegSysCall(3, c.entries.empty() ? nullptr : c.entries.data(), c.count), -1) << c.name;
    EXPECT_TRUE(log.has(HURN_ERROR, "MORU_CheckGroupCalls", c.text)) << c.name << log;
    EXPECT_TRUE(log.has(HURN_ERROR, "MORU_RegSysCall", "Check the input param failed.")) << c.name << log;
    EXPECT_EQ(MORU_FindSysCall(0x300), nullptr) << c.name;
  }
  LogCapture log;
  EXPECT_EQ(MORU_RegSysCall(32, &good, 1), -1);
  EXPECT_TRUE(log.has(HURN_ERROR, "MORU_RegSysCall", "Param 1 v_uiGroupId 32 is larger than 32.")) << log;
  EXPECT_EQ(MORU_UnRegSysCall(32), -1);
  EXPECT_TRUE(log.has(HURN_ERROR, "MORU_UnRegSysCall", "Param 1 v_uiGroupId 32 is larger than 32.")) << log;
}

TEST(Registry, KeepsACopyAndTheFirstMatch) {
  LogCapture log;
  {
    auto entries = entries_of(31, 255);
    entries[7] = {31u << 8 | 6, 0, second};  // a second entry of command 6
    ASSERT_EQ(MORU_RegSysCall(31, entries.data(), 255), 0);
    entries.assign(255, {});
  }
  EXPECT_EQ(log.texts(), (std::vector<std::string>{"MORU reg syscall begin.", "MORU reg syscall check groupid(31).",
                                                   "MORU reg syscall check rereg, uicount(255).",
                                                   "MORU reg syscall alloc memory."}))
      << log;
  EXPECT_EQ(MORU_FindSysCall(31u << 8 | 6)->pfnSysCall, first);
  EXPECT_EQ(MORU_FindSysCall(31u << 8 | 254)->uiCmd, 31u << 8 | 254);
  EXPECT_EQ(MORU_FindSysCall(31u << 8 | 255), nullptr);

  log.clear();
  const MORU_SYSCALL_ENTRY again{31u << 8, 0, second};
  EXPECT_EQ(MORU_RegSysCall(31, &again, 1), -1);
  EXPECT_TRUE(log.has(HURN_INFO, "MORU_RegSysCall", "MORU register syscall 31.")) << log;
  EXPECT_EQ(MORU_FindSysCall(31u << 8)->pfnSysCall, first);

  EXPECT_EQ(MORU_UnRegSysCall(31), 0);
  EXPECT_EQ(MORU_UnRegSysCall(31), 0);
  ASSERT_EQ(MORU_RegSysCall(31, &again, 1), 0);
  EXPECT_EQ(MORU_FindSysCall(31u << 8)->pfnSysCall, second);
  EXPECT_EQ(MORU_UnRegSysCall(31), 0);
}

TEST(Registry, EmptyAndImpossibleGroups) {
  LogCapture log;
  const MORU_SYSCALL_ENTRY none{};
  EXPECT_EQ(MORU_RegSysCall(1, &none, 0), 0);
  log.clear();
  EXPECT_EQ(MORU_FindSysCall(0x100), nullptr);
  EXPECT_TRUE(log.texts().empty()) << log;  // registered, and empty
  for (const uint32_t cmd : {0x200u, 0x2000u, 0xFFFFFFFFu}) {
    log.clear();
    EXPECT_EQ(MORU_FindSysCall(cmd), nullptr);
    EXPECT_TRUE(log.has(HURN_ERROR, "MORU_FindSysCall", "Syscall not registered usr, cmd = (0x*).")) << log;
  }
  EXPECT_EQ(MORU_UnRegSysCall(1), 0);
}
