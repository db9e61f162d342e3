#include <gtest/gtest.h>

#include <cerrno>

#include "support/log_capture.h"
#include "tirn/str.h"

using namespace tirn::test;

TEST(Str, Numbers) {
  const struct {
    const char* text;
    uint64_t u64;
    int64_t s64;
    int is_uint;
    const char* line;
  } kRows[] = {
      {"", 0, 0, 0, ""},
      {"0x", 0, 0, 0, ""},
      {"12abc", 12, 12, -1, ""},
      {"0XfF", 0xff, 0xff, 0, ""},
      {"-0x10", 0, -16, -1, ""},
      {"-9223372036854775808", 1ull << 63, INT64_MIN, -1, ""},
      {"18446744073709551616", UINT64_MAX, -1, 0,
       "Strtou64 fail because of error 34, Numerical result out of range."},
      {nullptr, 0, 0, -EINVAL, "Strtou64 fail because pStr is null."},
  };
  for (const auto& row : kRows) {
    LogCapture log;
    EXPECT_EQ(kesa_str_tou64(row.text), row.u64) << &row - kRows;
    EXPECT_EQ(log.lines().empty() ? "" : log.texts()[0], row.line);
    EXPECT_EQ(kesa_str_tos64(row.text), row.s64) << &row - kRows;
    EXPECT_EQ(kesa_str_isuint(row.text), row.is_uint) << &row - kRows;
    EXPECT_EQ(log.has(HURN_INFO, "kesa_str_tos64", "Strtos64 fail because pStr is null."), row.text == nullptr);
  }
}

TEST(Str, CharactersAndTokens) {
  LogCapture log;
  unsigned at = 77;
  EXPECT_EQ(kesa_get_charpos("", 'a', &at), -1);
  EXPECT_EQ(kesa_get_charpos("abc", '\0', &at), -1);
  EXPECT_EQ(kesa_get_charpos("abcb", 'b', &at), 0);
  EXPECT_EQ(at, 1u);
  for (std::string text : {"ab\rcd\nef", "ab\ncd\ref", "ab"}) {
    kesa_filter_newlinesymbol(text.data());
    EXPECT_STREQ(text.c_str(), "ab");
  }
  char upper[] = "AbZ09[\xc4", run[] = "a,,b", fresh[] = "x,y";
  kesa_str_tolower(upper);
  EXPECT_STREQ(upper, "abz09[\xc4");
  EXPECT_STREQ(kesa_str_tok(run, ","), "a");
  EXPECT_EQ(std::string(run, sizeof run), std::string("a\0\0b\0", 5));
  EXPECT_STREQ(kesa_str_tok(fresh, ","), "x");  // a new text before the first one is used up
  EXPECT_STREQ(kesa_str_tok(nullptr, ","), "y");
  EXPECT_TRUE(log.lines().empty()) << log;
  EXPECT_EQ(kesa_str_tok(nullptr, ","), nullptr);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{"Param((nil) (nil) )  is null.", "Param((nil))  is null."}));
}
