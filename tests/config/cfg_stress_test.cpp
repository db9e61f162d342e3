// The store under load and without memory.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "support/faults.h"
#include "support/temp_folder.h"
#include "tirn/cfg.h"

using namespace tirn::test;

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kLimit{15};  // for slow builds

// A letter over and over, each letter at another length: a torn value shows.
std::string value_of(char letter) { return std::string(static_cast<size_t>(letter - 'a') * 20 + 1, letter); }

std::string text_of(char letter) {
  std::string text;
  for (char section = '0'; section < '8'; ++section) {
    text += std::string("[s") + section + "]\n";
    for (char item = '0'; item < '8'; ++item) {
      text += std::string("i") + item + "=" + value_of(letter) + "\n";
    }
  }
  return text;
}

// Most lines would tell of items that are not there at the moment.
void silence() {
  const hurn_content_record quiet{HURN_CALLBACK_ONLY, [](const hurn_line*) {}};
  hurn_register_content_callback(&quiet);
}

}  // namespace

// Readers with and without a file's name, beside two threads that reload and forget a file each.
TEST(CfgStress, ReadersWhileFilesComeAndGo) {
  silence();
  const TempFolder folder;
  const std::string files[] = {folder.write_file("a", text_of('a')), folder.write_file("b", text_of('b'))};
  std::atomic<int> reloading{2};
  std::atomic<uint64_t> found{0}, wrong{0};
  const auto read_items = [&](unsigned i) {
    char value[64];
    for (; reloading > 0; ++i) {
      const char section[] = {'s', static_cast<char>('0' + i % 8), '\0'};
      const char item[] = {'i', static_cast<char>('0' + i / 8 % 8), '\0'};
      const char* const file = files[i / 2 % 2].c_str();
      const int result = i % 2 == 0 ? kesa_cfg_getItemValue(section, item, value, sizeof value)
                                    : kesa_cfg_getItemValue_ex(file, section, item, value, sizeof value);
      found += result == 0;
      wrong += result == 0 && value != value_of(value[0]);
    }
  };
  const auto reload = [&, end = Clock::now() + kLimit](const std::string& file) {
    for (int i = 0; i < 3000 && Clock::now() < end; ++i) {
      wrong += kesa_cfg_init(file.c_str()) != 0;
      for (int references = i % 3; references > 0; --references) {
        kesa_cfg_destroy_ex(file.c_str());
      }
    }
    --reloading;
  };
  std::thread threads[] = {std::thread(read_items, 0), std::thread(read_items, 1), std::thread(read_items, 2),
                           std::thread(reload, files[0]), std::thread(reload, files[1])};
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_GT(found, 0u);
  EXPECT_EQ(wrong, 0u);
  kesa_cfg_destroy();
  EXPECT_EQ(g_stCfgRwlock, 0u);
}

// Values change, and the whole store goes, while they are read.
TEST(CfgStress, SettersAndTheEndOfAll) {
  silence();
  const TempFolder folder;
  const std::string file = folder.write_file("a", text_of('a'));
  std::atomic<bool> is_over{false};
  std::atomic<uint64_t> torn{0};
  const auto work = [&](char letter) {
    char value[64];
    while (!is_over) {
      kesa_cfg_setItemValue("s7", "i7", value_of(letter).c_str());
      torn += kesa_cfg_getItemValue("s7", "i7", value, sizeof value) == 0 && value != value_of(value[0]);
    }
  };
  std::thread one(work, 'b'), two(work, 'c');
  const auto end = Clock::now() + kLimit;
  for (int i = 0; i < 2000 && Clock::now() < end; ++i) {
    kesa_cfg_init(file.c_str());
    kesa_cfg_destroy();
  }
  is_over = true;
  one.join();
  two.join();
  EXPECT_EQ(torn, 0u);
}

TEST(CfgFaults, LoadReloadSetAndRead) {
  const TempFolder folder;
  const std::string file = folder.write_file("a", "[s]\na=1\nb=1\n[t]\na=1\n");
  const char* const path = file.c_str();
  // How many of the items are there, each with its own value; the store is empty afterwards.
  const auto count_and_clear = [](const char* last_value) {
    int count = 0;
    for (const auto& [section, item] : {std::pair{"s", "a"}, {"s", "b"}, {"t", "a"}}) {
      char value[8] = "";
      if (kesa_cfg_getItemValue(section, item, value, sizeof value) == 0) {
        EXPECT_STREQ(value, *section == 't' ? last_value : "1");
        ++count;
      }
    }
    EXPECT_EQ(g_stCfgRwlock, 0u);
    kesa_cfg_destroy();
    return count;
  };
  const auto load = [path] { return static_cast<long>(kesa_cfg_init(path)); };
  const auto prepare = [load] { ASSERT_EQ(load(), 0); };
  for (const bool is_reload : {false, true}) {
    Scenario scenario{.run = load, .check = [&](long result, const Fault& fault, const LogCapture& log) {
                        const int count = count_and_clear("1");
                        // A refused item is left out; where the file could not be had, all is as it was.
                        EXPECT_TRUE(count == 3 || (fault.happened && (result == 0 || !is_reload))) << count << log;
                        EXPECT_TRUE(result == 0 || count == (is_reload ? 3 : 0)) << count << log;
                      }};
    if (is_reload) {
      scenario.prepare = prepare;
    }
    sweep(scenario);
  }
  for (const bool is_named : {false, true}) {
    sweep({.prepare = prepare,
           .run =
               [=] {
                 return static_cast<long>(is_named ? kesa_cfg_setItemValue_ex(path, "t", "a", "new")
                                                   : kesa_cfg_setItemValue("t", "a", "new"));
               },
           .check =
               [&](long result, const Fault& fault, const LogCapture& log) {
                 EXPECT_EQ(result != 0, fault.happened) << log;
                 EXPECT_EQ(log.count(HURN_ERROR, "Alloc needed item memory fail, size(4)."), fault.happened) << log;
                 EXPECT_EQ(count_and_clear(result == 0 ? "new" : "1"), 3);
               }});
  }
  KesaCfgItemRecord record{};
  sweep({.run = [=, &record] { return static_cast<long>(kesa_cfg_getItemFromFile(path, "t", "a", &record)); },
         .check =
             [&record](long result, const Fault& fault, const LogCapture& log) {
               EXPECT_TRUE(result == 0 ? std::strcmp(record.value, "1") == 0 : fault.happened) << log;
             }});
}
