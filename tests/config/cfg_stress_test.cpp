// The store under load and without memory.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "support/faults.h"
#include "support/temp_folder.h"
#include "tirn/cfg.h"

using namespace tirn::test;

namespace {

constexpr std::chrono::seconds kLimit{15};  // for slow builds

// All items of a generation have the same value, and two have their name in it: a torn tree shows.
std::string text_of(char generation) {
  std::string text;
  for (int section = 0; section < 8; ++section) {
    text += "[s" + std::to_string(section) + "]\n";
    for (int item = 0; item < 8; ++item) {
      text += "i" + std::to_string(item) + "=" +
              std::string(static_cast<size_t>(generation - 'a') * 20 + 1, generation) + "\n";
    }
  }
  return text;
}

bool is_whole(const char* value) {
  const size_t length = std::strlen(value);
  return length == static_cast<size_t>(value[0] - 'a') * 20 + 1 &&
         std::strspn(value, std::string(1, value[0]).c_str()) == length;
}

// Most lines would tell of items that are not there at the moment.
void silence() {
  const hurn_content_record quiet{HURN_CALLBACK_ONLY, [](const hurn_line*) {}};
  hurn_register_content_callback(&quiet);
}

}  // namespace

// Readers with and without a file's name, writers of one kind, and a thread each that reloads and that forgets.
TEST(CfgStress, ReadersWhileFilesComeAndGo) {
  silence();
  const auto end = std::chrono::steady_clock::now() + kLimit;
  const TempFolder folder;
  const std::string files[] = {folder.write_file("a", text_of('a')), folder.write_file("b", text_of('b'))};
  std::atomic<bool> is_over{false};
  std::atomic<uint64_t> found{0}, torn{0};
  const auto read_items = [&](unsigned seed) {
    char value[64];
    for (unsigned i = seed; !is_over; ++i) {
      const std::string section = "s" + std::to_string(i % 8), item = "i" + std::to_string(i / 8 % 8);
      const int result = i % 2 == 0 ? kesa_cfg_getItemValue(section.c_str(), item.c_str(), value, sizeof value)
                                    : kesa_cfg_getItemValue_ex(files[i / 2 % 2].c_str(), section.c_str(),
                                                               item.c_str(), value, sizeof value);
      found += result == 0;
      torn += result == 0 && !is_whole(value);
    }
  };
  const auto reload = [&](unsigned file) {
    for (int i = 0; i < 3000 && std::chrono::steady_clock::now() < end; ++i) {
      torn += kesa_cfg_init(files[file].c_str()) != 0;
      for (int references = i % 3; references > 0; --references) {
        kesa_cfg_destroy_ex(files[file].c_str());
      }
    }
  };
  std::vector<std::thread> readers;
  for (unsigned i = 0; i < 3; ++i) {
    readers.emplace_back(read_items, i);
  }
  std::thread other(reload, 1);
  reload(0);
  other.join();
  is_over = true;
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_GT(found, 0u);
  EXPECT_EQ(torn, 0u);
  kesa_cfg_destroy();
  EXPECT_EQ(g_stCfgRwlock, 0u);
}

// Those without a file's name exclude each other: values change and the whole store goes while they are read.
TEST(CfgStress, SettersAndTheEndOfAll) {
  silence();
  const auto end = std::chrono::steady_clock::now() + kLimit;
  const TempFolder folder;
  const std::string file = folder.write_file("a", text_of('a'));
  std::atomic<bool> is_over{false};
  std::atomic<uint64_t> torn{0};
  const auto work = [&](char generation) {
    const std::string mine(static_cast<size_t>(generation - 'a') * 20 + 1, generation);
    char value[64];
    while (!is_over) {
      kesa_cfg_setItemValue("s7", "i7", mine.c_str());
      torn += kesa_cfg_getItemValue("s7", "i7", value, sizeof value) == 0 && !is_whole(value);
    }
  };
  std::thread one(work, 'b'), two(work, 'c');
  for (int i = 0; i < 2000 && std::chrono::steady_clock::now() < end; ++i) {
    kesa_cfg_init(file.c_str());
    kesa_cfg_destroy();
  }
  is_over = true;
  one.join();
  two.join();
  EXPECT_EQ(torn, 0u);
}

TEST(CfgFaults, LoadReadSetAndReload) {
  const TempFolder folder;
  const std::string file = folder.write_file("a", "[s]\na=1\nb=2\n[t]\na=3\n");
  const char* const path = file.c_str();
  const auto prepare = [path] { ASSERT_EQ(kesa_cfg_init(path), 0); };
  const auto clean_up = [] { kesa_cfg_destroy(); };
  // Whatever fails: an item has its value, or is left out; the file is there or is not.
  const auto items_are_right = [](long result, const Fault& fault, const LogCapture& log) {
    int missing = 0;
    for (const char* const* item : {(const char* const[]){"s", "a", "1"}, (const char* const[]){"s", "b", "2"},
                                    (const char* const[]){"t", "a", "3"}}) {
      char value[8] = "";
      const bool is_there = kesa_cfg_getItemValue(item[0], item[1], value, sizeof value) == 0;
      missing += !is_there;
      EXPECT_TRUE(!is_there || std::strcmp(value, item[2]) == 0) << value << log;
    }
    EXPECT_TRUE(missing == 0 || fault.happened) << log;
    EXPECT_TRUE(result == 0 || missing == 3) << log;
    EXPECT_EQ(g_stCfgRwlock, 0u);
    kesa_cfg_destroy();
  };
  sweep({.run = [path] { return static_cast<long>(kesa_cfg_init(path)); },
         .check = items_are_right,
         .clean_up = clean_up});
  sweep({.prepare = prepare,
         .run = [path] { return static_cast<long>(kesa_cfg_init(path)); },
         .check =
             [path](long result, const Fault&, const LogCapture& log) {
               char value[8];
               // What was registered stays where the new content could not be had.
               EXPECT_TRUE(result == 0 || kesa_cfg_getItemValue_ex(path, "t", "a", value, sizeof value) == 0) << log;
               kesa_cfg_destroy();
             },
         .clean_up = clean_up});
  for (const bool is_named : {false, true}) {
    sweep({.prepare = prepare,
           .run =
               [path, is_named] {
                 return static_cast<long>(is_named ? kesa_cfg_setItemValue_ex(path, "t", "a", "new")
                                                   : kesa_cfg_setItemValue("t", "a", "new"));
               },
           .check =
               [](long result, const Fault& fault, const LogCapture& log) {
                 char value[8];
                 EXPECT_EQ(kesa_cfg_getItemValue("t", "a", value, sizeof value), 0);
                 EXPECT_STREQ(value, result == 0 ? "new" : "3");
                 EXPECT_EQ(result != 0, fault.happened) << log;
                 EXPECT_EQ(log.count(HURN_ERROR, "Alloc needed item memory fail, size(4)."), fault.happened ? 1u : 0u)
                     << log;
                 kesa_cfg_destroy();
               },
           .clean_up = clean_up});
  }
  KesaCfgItemRecord record{};
  sweep({.run = [path, &record] { return static_cast<long>(kesa_cfg_getItemFromFile(path, "t", "a", &record)); },
         .check =
             [&record](long result, const Fault& fault, const LogCapture& log) {
               EXPECT_TRUE(result == 0 ? std::strcmp(record.value, "3") == 0 : fault.happened) << log;
             }});
}
