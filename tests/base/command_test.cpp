#include "libtirn/base/command.h"

#include <gtest/gtest.h>

#include <cstring>

#include "tirn/str.h"

using tirn::FirstLine;

TEST(Command, FirstLineOfWhatComesBack) {
  const struct {
    const char *command, *allowed;
    int size;
    FirstLine expected;
    const char* line;
  } kRows[] = {
      {"printf 'one\\ntwo'", "", 16, FirstLine::kRead, "one\n"},
      {"printf one", "", 16, FirstLine::kRead, "one"},
      {"echo 123", "", 4, FirstLine::kRead, "123"},
      {"kill -9 $PPID | true", "|", 16, FirstLine::kNoPipe, ""},  // refused
      {"no_such_command_here 2>/dev/null", ">", 16, FirstLine::kEmpty, ""},
  };
  for (const auto& row : kRows) {
    char line[16];
    std::memset(line, 'x', sizeof line);
    EXPECT_EQ(tirn::first_line(row.command, row.allowed, line, row.size), row.expected) << row.command;
    EXPECT_STREQ(line, row.line) << row.command;
  }
}

TEST(Command, LineThatDoesNotFitIsEmptied) {
  char buffer[8] = "before";
  EXPECT_EQ(tirn::run_command(buffer, sizeof buffer, "", "exit %d", 3), 0x300);
  EXPECT_EQ(tirn::run_command(buffer, sizeof buffer, ";", "a;b&%d", 3), KESA_COMMAND_REFUSED);
  EXPECT_EQ(tirn::run_command(buffer, sizeof buffer, "", "exit %d", 256), std::nullopt);
  EXPECT_STREQ(buffer, "");
  EXPECT_TRUE(tirn::format_command(buffer, sizeof buffer, "%s-%d", "abcd", 12));
  EXPECT_STREQ(buffer, "abcd-12");
}
