#include "libtirn/base/log.h"

#include <gtest/gtest.h>

#include "support/log_capture.h"

using namespace tirn::test;

namespace {

int g_evaluations = 0;

int evaluated() { return ++g_evaluations; }

uint32_t write_each_level() {
  TIRN_ERROR("error %d", evaluated());
  TIRN_WARNING("warning %d", evaluated());
  TIRN_INFO("info %d", evaluated());
  TIRN_DEBUG("debug %d", evaluated());
  return __LINE__;
}

TEST(Log, LinesBearPlainNamesAndTheirLevel) {
  const LogCapture log;
  const uint32_t end = write_each_level();
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 4u) << log;
  constexpr uint32_t kLevels[] = {3, 4, 6, 7};
  constexpr const char* kTexts[] = {"error 1", "warning 2", "info 3", "debug 4"};
  for (uint32_t i = 0; i < 4; ++i) {
    EXPECT_EQ(std::tie(lines[i].module, lines[i].level, lines[i].text), std::tuple(381u, kLevels[i], kTexts[i]));
    EXPECT_EQ(std::tie(lines[i].file, lines[i].function), std::tuple("log_test", "write_each_level"));
    EXPECT_EQ(lines[i].line, end - 4 + i);
  }
  hurn_loglevel_set(tirn::kModule, HURN_WARNING);
  write_each_level();
  EXPECT_EQ(log.lines().size(), 6u) << log;
  EXPECT_EQ(g_evaluations, 6) << "arguments of lines that are off";
}

TEST(Log, OtherNamesAndModules) {
  constexpr uint32_t kOther = 7;
  const LogCapture log(HURN_ERROR);
  TIRN_LOG_AS(kOther, tirn::kInfo, "shared_check", "by the other module's level");
  TIRN_LOG_AS(tirn::kModule, tirn::kInfo, "shared_check", "off");
  TIRN_LOG_ALWAYS(0, tirn::kInfo, "[Infra]line %d", 1);
  TIRN_LOG_ALWAYS(tirn::kModule, tirn::kDebug, "always");
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 3u) << log;
  EXPECT_EQ(lines[0].module, kOther);
  EXPECT_EQ(lines[0].function, "shared_check");
  EXPECT_EQ(lines[1].module, 0u);
  EXPECT_EQ(lines[1].text, "[Infra]line 1");
  EXPECT_EQ(lines[2].level, 7u);
}

TEST(Log, FileStemsOfAnyPath) {
  EXPECT_STREQ(tirn::file_stem("libtirn/init/kesa_init.cpp").text, "kesa_init");
  EXPECT_STREQ(tirn::file_stem("../a.b/kesa_x").text, "kesa_x");
  EXPECT_STREQ(tirn::file_stem("two.dots.cpp").text, "two.dots");
  EXPECT_STREQ(tirn::file_stem("/").text, "");
}

}  // namespace
