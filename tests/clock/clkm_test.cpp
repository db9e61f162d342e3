#include "tirn/clkm.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "support/printed.h"

using namespace tirn::test;

namespace {

// The child divides the count of the root by 3, the grandchild that of the child by 2. The late module has no parent.
clkm_module root, child, grand, late;

int g_pass, g_result;  // the result of each handler: 1 skips the children, 2 does not
std::string g_fired;

// Notes the pass, the module, its clock, and the code if there is one. The root, due in each pass, is left out.
int32_t note(uint64_t tick, uint32_t code, void* name) {
  if (name != root.name) {
    g_fired += std::to_string(g_pass) + static_cast<char*>(name) + std::to_string(tick);
    g_fired += code != 0 ? "!" + std::to_string(code) + " " : " ";
  }
  return g_result;
}

int32_t reset_grand(uint64_t tick, uint32_t code, void* name) {
  return clkm_reset(&grand), clkm_clk_delay(&child, 1), note(tick, code, name);
}

void plant() {
  g_result = 2;
  g_fired.clear();
  for (const auto& [module, name] : {std::pair{&root, "r"}, {&child, "c"}, {&grand, "g"}, {&late, "l"}}) {
    ASSERT_EQ(clkm_init(module, note, module->name, name), 0);
  }
  ASSERT_TRUE(clkm_reg_child_module(&root, &child, 3) == 0 && clkm_reg_child_module(&child, &grand, 2) == 0);
}

int delay(clkm_module* module) { return clkm_clk_delay(module, 2); }
int reset_late(clkm_module* module) { return clkm_clk_delay_and_reset(module, 2); }
int add(clkm_module* module) { return clkm_reg_child_module(&root, module, 6); }
int change_below(clkm_module* module) { return module->handler = reset_grand, 0; }
int skip_or_not(clkm_module*) { return g_result = 3 - g_result, 0; }

using Change = std::tuple<int, int (*)(clkm_module*), clkm_module*>;  // before which pass, what, of which module
constexpr char kUsual[] = "3c3 6c6 6g2 9c9 12c12 12g4 ";

}  // namespace

TEST(ClockTree, FiresAsItsChangesAsk) {
  const struct {
    std::vector<Change> changes;
    const char* fired;
    uint64_t next = 13;  // of the root, after 12 passes
  } kRows[] = {
      {{}, kUsual},
      {{{5, clkm_reset, &child}}, "3c3 5c5!1 5g0!1 8c8 11c11 11g2 "},
      {{{5, clkm_reset, &root}}, "3c3 5c0!1 5g0!1 8c3 11c6 11g2 "},
      {{{5, delay, &child}}, "3c3 8c8 8g2 11c11 "},
      {{{5, delay, &root}}, kUsual, 15},
      {{{5, reset_late, &child}}, "3c3 8c8!2 8g0!2 11c11 "},
      {{{5, reset_late, &child}, {5, clkm_reset, &child}}, "3c3 5c5!3 5g0!3 8c8 11c11 11g2 "},
      {{{5, clkm_disable, &child}, {9, clkm_enable, &child}}, "3c3 10c10 10g2 "},
      {{{5, clkm_disable, &child}, {6, delay, &child}, {8, clkm_enable, &child}}, "3c3 11c11 11g2 "},
      {{{5, clkm_disable, &child}, {6, clkm_reset, &root}, {8, clkm_enable, &child}}, "3c3 9c3 9g2 12c6 "},
      {{{5, clkm_disable, &root}, {7, clkm_enable, &root}}, "3c3 8c6 8g2 11c9 ", 6},
      {{{5, clkm_disable, &root}, {6, delay, &root}, {7, clkm_enable, &root}}, "3c3 9c6 9g2 12c9 ", 9},
      {{{3, skip_or_not, &root}, {4, skip_or_not, &root}, {8, clkm_reset, &child}}, "8c8!1 8g0!1 11c11 "},
      {{{5, add, &late}}, "3c3 6c6 6g2 6l6 9c9 12c12 12g4 12l12 "},
      {{{8, add, &late}}, kUsual},
      {{{1, change_below, &child}}, "3c3 3g1!1 7c7 7g2!1 11c11 11g3!1 "},
  };
  for (const auto& row : kRows) {
    plant();
    for (g_pass = 1; g_pass <= 12; ++g_pass) {
      for (const auto& [pass, change, module] : row.changes) {
        EXPECT_TRUE(pass != g_pass || change(module) == 0);
      }
      EXPECT_EQ(clkm_run(&root), 0);
    }
    EXPECT_TRUE(g_fired == row.fired && root.nextTick == row.next) << g_fired << root.nextTick;
  }
}

TEST(ClockTree, TheDiagramShowsTheLast128Steps) {
  plant();
  for (g_pass = 1; g_pass <= 3; ++g_pass) {
    clkm_run(&root);  // the first simulated step counts what fires here
  }
  std::string rows[] = {std::string(128, '-'), std::string(128, '-'), std::string(128, '-')};
  for (uint64_t step = UINT64_MAX - 149; g_pass <= 400; ++step, ++g_pass) {
    const bool has_fired[] = {true, g_pass % 3 == 0 || g_pass == 4, g_pass % 6 == 0};
    std::string expected;
    for (size_t i = 0; i < 3; ++i) {
      rows[i][(step + 1) % 128] = '-';
      rows[i][step % 128] = '*';
      expected += "rcg"[i] + std::string(15, ' ') + ": " + rows[i] + "\n";
      rows[i][step % 128] = has_fired[i] ? '+' : '-';
    }
    ASSERT_EQ(clkm_run_simu(&root, step), 0);
    ASSERT_EQ(printed([step](kesa_print_fn print) { ASSERT_EQ(clkm_show_simu(&root, step, print), 0); }), expected);
  }
}

TEST(ClockTree, ChecksPointersAndNames) {
  for (const int result :
       {clkm_init(nullptr, note, nullptr, "x"), clkm_init(&late, nullptr, nullptr, "x"), clkm_reset(nullptr),
        clkm_reg_child_module(nullptr, &late, 1), clkm_reg_child_module(&late, nullptr, 1), clkm_disable(nullptr),
        clkm_clk_delay(nullptr, 1), clkm_clk_delay_and_reset(nullptr, 1), clkm_enable(nullptr), clkm_run(nullptr),
        clkm_run_simu(nullptr, 0), clkm_show_simu(nullptr, 0, keep_printed), clkm_show_simu(&late, 0, nullptr)}) {
    EXPECT_EQ(result, -1);
  }
  EXPECT_TRUE(clkm_init(&late, note, nullptr, nullptr) == 0 && late.name == std::string("NULL"));
  clkm_init(&late, note, nullptr, std::string(40, 'x').c_str());
  EXPECT_EQ(late.name, std::string(31, 'x'));
}
