#include "libtirn/base/command.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/fake_tools.h"
#include "support/faults.h"
#include "tirn/str.h"

using namespace tirn::test;
using tirn::FirstLine;

namespace {

TEST(Command, FirstLineOfWhatComesBack) {
  const struct {
    const char* command;
    const char* allowed;
    int size;
    FirstLine expected;
    const char* line;
  } kRows[] = {
      {"echo one", "", 16, FirstLine::kRead, "one\n"},
      {"printf 'one\\ntwo'", "", 16, FirstLine::kRead, "one\n"},
      {"printf one", "", 16, FirstLine::kRead, "one"},
      {"echo 12345", "", 4, FirstLine::kRead, "123"},
      {"echo 12", "", 4, FirstLine::kRead, "12\n"},
      {"true", "", 16, FirstLine::kEmpty, ""},
      {"no_such_command_here 2>/dev/null", ">", 16, FirstLine::kEmpty, ""},
  };
  for (const auto& row : kRows) {
    char line[16];
    std::memset(line, 'x', sizeof line);
    EXPECT_EQ(tirn::first_line(row.command, row.allowed, line, row.size), row.expected) << row.command;
    EXPECT_STREQ(line, row.line) << row.command;
  }
}

TEST(Command, WhatACommandDoesNotNeedIsRefused) {
  FakeTools tools;
  tools.add("tool", 0, "ran\n");
  char line[16] = "x";
  EXPECT_EQ(tirn::first_line("tool | cat; tool", "|", line, sizeof line), FirstLine::kNoPipe);
  EXPECT_STREQ(line, "");
  EXPECT_TRUE(tools.calls().empty());
  EXPECT_EQ(tirn::first_line("tool 'a b' | cat", "|", line, sizeof line), FirstLine::kRead);
  EXPECT_EQ(tools.calls(), std::vector<std::string>{"tool a b"});
}

TEST(Command, FailingCalls) {
  for (const Object object : {Object::library, Object::program}) {  // who makes the pipe, and who reads from it
    sweep({.prepare = [] { kesa_system("true"); },                  // from then on the shell is known
           .run =
               [] {
                 char line[16];
                 return static_cast<long>(tirn::first_line("echo one", "", line, sizeof line));
               },
           .check =
               [](long result, const Fault& fault, const LogCapture&) {
                 const bool is_in_line = std::strcmp(fault.function, "getc") == 0 && fault.number > 1;
                 const FirstLine expected = !fault.happened || is_in_line              ? FirstLine::kRead
                                            : std::strcmp(fault.function, "getc") == 0 ? FirstLine::kEmpty
                                                                                       : FirstLine::kNoPipe;
                 EXPECT_EQ(static_cast<FirstLine>(result), expected);
               },
           .kinds = kFileFaults,
           .blocks_kept = 1,
           .descriptors_kept = 1,
           .object = object});
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
  EXPECT_FALSE(tirn::format_command(buffer, sizeof buffer, "%s-%d", "abcd", 123));
  EXPECT_STREQ(buffer, "");
}

}  // namespace
