#include "libtirn/base/command.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/fake_tools.h"
#include "support/faults.h"

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
      {"echo one", "", 16, FirstLine::read, "one\n"},
      {"printf 'one\\ntwo'", "", 16, FirstLine::read, "one\n"},
      {"printf one", "", 16, FirstLine::read, "one"},
      {"echo one | cat", "|", 16, FirstLine::read, "one\n"},
      {"echo 12345", "", 4, FirstLine::read, "123"},
      {"echo 12", "", 4, FirstLine::read, "12\n"},
      {"true", "", 16, FirstLine::empty, ""},
      {"exit 3", "", 16, FirstLine::empty, ""},
      {"no_such_command_here 2>/dev/null", ">", 16, FirstLine::empty, ""},
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
  for (const char special : std::string("|;&$<>!\n`")) {
    const std::string command = std::string("tool ") + special;
    char line[16] = "x";
    EXPECT_EQ(tirn::first_line(command.c_str(), "", line, sizeof line), FirstLine::no_pipe) << command;
    EXPECT_STREQ(line, "") << command;
  }
  char line[16];
  EXPECT_EQ(tirn::first_line("tool | cat; tool", "|", line, sizeof line), FirstLine::no_pipe);
  EXPECT_TRUE(tools.calls().empty());
  EXPECT_EQ(tirn::first_line("tool 'a b' | cat", "|", line, sizeof line), FirstLine::read);
  EXPECT_EQ(tools.calls(), std::vector<std::string>{"tool a b"});
}

TEST(Command, NoPipe) {
  sweep({.run =
             [] {
               char line[16];
               return static_cast<long>(tirn::first_line("echo one", "", line, sizeof line));
             },
         .check =
             [](long result, const Fault& fault, const LogCapture&) {
               const FirstLine expected = !fault.happened                             ? FirstLine::read
                                          : std::strcmp(fault.function, "popen") == 0 ? FirstLine::no_pipe
                                                                                      : FirstLine::empty;
               EXPECT_EQ(static_cast<FirstLine>(result), expected);
             },
         .kinds = kFileFaults,
         .object = Object::program});
}

TEST(Command, LineThatDoesNotFitIsEmptied) {
  char buffer[8] = "before";
  EXPECT_TRUE(tirn::format_command(buffer, sizeof buffer, "%s-%d", "abcd", 12));
  EXPECT_STREQ(buffer, "abcd-12");
  EXPECT_FALSE(tirn::format_command(buffer, sizeof buffer, "%s-%d", "abcd", 123));
  EXPECT_STREQ(buffer, "");
}

}  // namespace
