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
  const MORU_SYSCALL_ENTRY good{0x300, MORU_SYSCALL_DIRECT, first};
  const struct {
    std::vector<MORU_SYSCALL_ENTRY> entries;
    const char* text;
  } kCases[] = {
      {{}, "Parm 2(v_pstSysCalls) is NULL."},
      {entries_of(3, 256), "Parm 3 256 is larger than 255."},
      {{good, {0x301, MORU_SYSCALL_INDIRECT + 1, first}},
       "Syscall type is wrong, it should be direct(0) or indirect(1)."},
      {{good, {0x400, MORU_SYSCALL_DIRECT, first}}, "Syscall's cmd 1024  is wrong, it should be v_uiGroupId(3)."},
      {{good, {0x302, MORU_SYSCALL_INDIRECT, nullptr}}, "pfnSysCall is NULL."},
  };
  for (const auto& c : kCases) {
    LogCapture log;
    const auto count = static_cast<uint32_t>(c.entries.size());
    EXPECT_EQ(MORU_RegSysCall(3, count != 0 ? c.entries.data() : nullptr, count), -1) << c.text;
    EXPECT_TRUE(log.has(HURN_ERROR, "MORU_CheckGroupCalls", c.text)) << log;
    EXPECT_EQ(MORU_FindSysCall(0x300), nullptr) << c.text;
  }
  LogCapture log;
  EXPECT_EQ(MORU_RegSysCall(32, &good, 1), -1);
  EXPECT_EQ(MORU_UnRegSysCall(32), -1);
  EXPECT_EQ(log.count(HURN_ERROR, "Param 1 v_uiGroupId 32 is larger than 32."), 2u) << log;
}

TEST(Registry, KeepsACopyAndTheFirstMatch) {
  constexpr uint32_t kCmd = 31u << 8;
  LogCapture log;
  auto entries = entries_of(31, 255);
  entries[7] = {kCmd | 6, 0, second};  // a second entry of command 6
  ASSERT_EQ(MORU_RegSysCall(31, entries.data(), 255), 0);
  entries.assign(255, {});
  EXPECT_EQ(MORU_FindSysCall(kCmd | 6)->pfnSysCall, first);
  EXPECT_EQ(MORU_FindSysCall(kCmd | 254)->uiCmd, kCmd | 254);
  EXPECT_EQ(MORU_FindSysCall(kCmd | 255), nullptr);

  const MORU_SYSCALL_ENTRY again{kCmd, 0, second};
  EXPECT_EQ(MORU_RegSysCall(31, &again, 1), -1);
  EXPECT_EQ(MORU_FindSysCall(kCmd)->pfnSysCall, first);
  EXPECT_EQ(MORU_UnRegSysCall(31), 0);
  EXPECT_EQ(MORU_UnRegSysCall(31), 0) << "without a group";
  ASSERT_EQ(MORU_RegSysCall(31, &again, 1), 0);
  EXPECT_EQ(MORU_FindSysCall(kCmd)->pfnSysCall, second);
  EXPECT_EQ(MORU_UnRegSysCall(31), 0);

  EXPECT_EQ(MORU_RegSysCall(1, &again, 0), 0);
  EXPECT_EQ(log.count(HURN_ERROR, "*"), 0u) << log;
  EXPECT_EQ(MORU_FindSysCall(0x100), nullptr);
  EXPECT_EQ(log.count("Syscall not registered usr*"), 0u) << "registered, and empty" << log;
  for (const uint32_t cmd : {0x200u, 0x2000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(MORU_FindSysCall(cmd), nullptr);
  }
  EXPECT_EQ(log.count(HURN_ERROR, "Syscall not registered usr, cmd = (0x*)."), 3u) << log;
  EXPECT_EQ(MORU_UnRegSysCall(1), 0);
}
