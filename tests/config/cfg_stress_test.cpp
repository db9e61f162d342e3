// Tests the configuration store under load, and with failing calls of the system.
#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <thread>
#include <vector>

#include "support/faults.h"
#include "support/temp_folder.h"
#include "tirn/cfg.h"

using namespace tirn::test;

// Values are set and read while their files change, are loaded again and are dropped: in one file by its name, or in
// whichever file has the item.
TEST(CfgStress, ValuesStayWhole) {
  const hurn_content_record quiet{HURN_CALLBACK_ONLY, [](const hurn_line*) {}};
  hurn_register_content_callback(&quiet);  // most log lines would report items that are missing at the moment
  const TempFolder folder;
  for (const bool is_by_name : {true, false}) {
    std::atomic<uint64_t> busy{2}, found{0}, wrong{0};
    std::vector<std::jthread> threads;
    for (const char letter : {'a', 'b'}) {
      const std::string file = folder.path(std::string(1, letter));
      threads.emplace_back([&, letter, path = file] {
        for (unsigned i = 0; busy > 0; ++i) {
          const std::string set(1 + i % 99, letter);  // of one letter, so that a torn value shows
          char value[128];
          is_by_name ? kesa_cfg_setItemValue_ex(path.c_str(), "s", "a", set.c_str())
                     : kesa_cfg_setItemValue("s", "a", set.c_str());
          if ((is_by_name ? kesa_cfg_getItemValue_ex(path.c_str(), "s", "a", value, sizeof value)
                          : kesa_cfg_getItemValue("s", "a", value, sizeof value)) == 0) {
            ++found;
            wrong += value != std::string(std::strlen(value), value[0]) || (is_by_name && value[0] != letter);
          }
          i % 4 == 0 ? sched_yield() : 0;  // gives way to the writers, which have no priority
        }
      });
      threads.emplace_back([&, letter, path = file, end = std::time(nullptr) + 2] {
        for (unsigned i = 0; i < 20 || std::time(nullptr) < end; ++i) {
          const std::string text = "[s]\nb=1\na=" + std::string(1 + i % 99, letter) + "\n";
          std::rename(folder.write_file(std::string("new_") + letter, text).c_str(), path.c_str());
          wrong += kesa_cfg_init(path.c_str()) != 0;
          for (unsigned references = i % 3; references > 0; --references) {
            is_by_name || i % 9 != 0 ? kesa_cfg_destroy_ex(path.c_str()) : kesa_cfg_destroy();
          }
        }
        --busy;
      });
    }
    threads.clear();  // joins them
    EXPECT_GT(found, 0u);
    kesa_cfg_destroy();
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(g_stCfgRwlock, 0u);
  }
}

TEST(CfgFaults, LoadReloadSetAndRead) {
  const TempFolder folder;
  static const std::string file = folder.path("a");
  const auto write = [&](const std::string& v) { folder.write_file("a", "[s]\na=" + v + "\n[t]\na=" + v + "\n"); };
  const auto load = [] { return kesa_cfg_init(file.c_str()); };
  const auto read = [] {
    KesaCfgItemRecord record;
    return kesa_cfg_getItemFromFile(file.c_str(), "t", "a", &record);
  };
  const struct {
    int32_t (*run)();
    std::string before, after;  // the values of the two items, "-" for a missing one
  } rows[] = {{load, "--", "22"},
              {load, "11", "22"},
              {read, "11", "11"},
              {[] { return kesa_cfg_setItemValue_ex(file.c_str(), "t", "a", "n"); }, "11", "1n"},
              {[] { return kesa_cfg_setItemValue("t", "a", "n"); }, "11", "1n"}};
  for (const auto& row : rows) {
    const auto prepare = [&] { write("1"), row.before == "11" ? load() : 0, write("2"); };
    sweep({.prepare = prepare, .run = row.run, .check = [&](long result, const Fault& fault, const LogCapture& log) {
             std::string all, expected = result == 0 ? row.after : row.before;
             for (const char* const section : {"s", "t"}) {
               char value[8] = "-";
               if (kesa_cfg_getItemValue(section, "a", value, sizeof value) != 0 && fault.happened && result == 0) {
                 expected[all.size()] = '-';  // skipped because of the fault
               }
               all += value;
             }
             EXPECT_EQ(all, expected) << log;
             EXPECT_TRUE(result == 0 || fault.happened) << log;
             EXPECT_EQ(g_stCfgRwlock, 0u);
             kesa_cfg_destroy();
           }});
  }
}
