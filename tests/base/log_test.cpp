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

TEST(Log, LinesBearPlainNamesAndTheirLevel) {
  const LogCapture log;
  write_each_level();
  hurn_loglevel_set(tirn::kModule, HURN_WARNING);
  write_each_level();
  EXPECT_EQ(g_evaluations, 6) << "arguments of lines that are off";
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 6u) << log;
  constexpr uint32_t kLevels[] = {3, 4, 6, 7, 3, 4};
  constexpr const char* kTexts[] = {"error 1", "warning 2", "info 3", "debug 4", "error 5", "warning 6"};
  for (uint32_t i = 0; i < 6; ++i) {
    EXPECT_EQ(std::tie(lines[i].module, lines[i].level, lines[i].text), std::tuple(381u, kLevels[i], kTexts[i]));
    EXPECT_EQ(std::tie(lines[i].file, lines[i].function), std::tuple("log_test", "write_each_level"));
    EXPECT_EQ(lines[i].line, lines[0].line + i % 4);
  }
}

TEST(Log, OtherNamesAndModules) {
  constexpr uint32_t kOther = 7;
  const LogCapture log(HURN_ERROR);
  TIRN_LOG_AS(kOther, tirn::kInfo, "shared_check", "by the other module's level");
  TIRN_LOG_AS(tirn::kModule, tirn::kInfo, "shared_check", "off");
  TIRN_LOG_ALWAYS(0, tirn::kDebug, "[Infra]line %d", 1);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u) << log;
  EXPECT_TRUE(lines[0].module == kOther && lines[0].function == "shared_check") << log;
  EXPECT_TRUE(lines[1].module == 0 && lines[1].level == 7 && lines[1].text == "[Infra]line 1") << log;
  EXPECT_STREQ(tirn::file_stem("../a.b/kesa_x").text, "kesa_x");
  EXPECT_STREQ(tirn::file_stem("two.dots.cpp").text, "two.dots");
  EXPECT_STREQ(tirn::file_stem("/").text, "");
}
