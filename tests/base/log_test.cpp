#include "libtirn/base/log.h"

#include <gtest/gtest.h>

#include "support/log_capture.h"

using namespace tirn::test;

namespace {

int g_evaluations = 0;

int evaluated() { return ++g_evaluations; }

void write_each_level() {
  TIRN_ERROR("error %d", evaluated());
  TIRN_WARNING("warning %d", evaluated());
  TIRN_INFO("info %d", evaluated());
  TIRN_DEBUG("debug %d", evaluated());
}

}  // namespace

TEST(Log, LinesHavePlainNamesAndTheirLevel) {
  const LogCapture log;
  write_each_level();
  hurn_loglevel_set(tirn::kModule, HURN_WARNING);
  write_each_level();
  EXPECT_EQ(g_evaluations, 6) << "arguments of lines that are off";
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 6u) << log;
  constexpr uint32_t kLevels[] = {HURN_ERROR, HURN_WARNING, HURN_INFO, HURN_DEBUG, HURN_ERROR, HURN_WARNING};
  constexpr const char* kTexts[] = {"error 1", "warning 2", "info 3", "debug 4", "error 5", "warning 6"};
  for (uint32_t i = 0; i < 6; ++i) {
    EXPECT_EQ(std::tie(lines[i].module, lines[i].level, lines[i].text),
              std::tuple(TIRN_MODULE_ID, kLevels[i], kTexts[i]));
    EXPECT_EQ(std::tie(lines[i].file, lines[i].function), std::tuple("log_test", "write_each_level"));
    EXPECT_EQ(lines[i].line, lines[0].line + i % 4);
  }
}

TEST(Log, OtherNames) {
  const LogCapture log(HURN_ERROR);
  TIRN_INFO_AS("shared_check", "off");
  TIRN_ERROR_AS("shared_check", "on");
  TIRN_ERROR_ALWAYS_AS("other", "line %d", 1);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u) << log;
  EXPECT_EQ(std::tie(lines[0].function, lines[0].text), std::tuple("shared_check", "on"));
  EXPECT_EQ(std::tie(lines[1].function, lines[1].text), std::tuple("other", "line 1"));
  EXPECT_STREQ(tirn::file_stem("../a.b/kesa_x").text, "kesa_x");
  EXPECT_STREQ(tirn::file_stem("two.dots.cpp").text, "two.dots");
  EXPECT_STREQ(tirn::file_stem("/").text, "");
}
