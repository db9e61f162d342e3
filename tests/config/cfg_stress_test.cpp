// The store under load and without memory.
#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>
#include <vector>

#include "support/faults.h"
#include "support/temp_folder.h"
#include "tirn/cfg.h"

using namespace tirn::test;

namespace {

// Of a file's letter and a generation, at many lengths: a torn value shows.
std::string value_of(char letter, unsigned long generation) {
  std::string value(1, letter);
  for (unsigned long i = 0; i <= generation % 7; ++i) {
    value += "." + std::to_string(generation);
  }
  return value;
}

class CfgStress : public testing::Test {
 protected:
  CfgStress() {  // most lines would tell of items that are not there at the moment
    const hurn_content_record quiet{HURN_CALLBACK_ONLY, [](const hurn_line*) {}};
    hurn_register_content_callback(&quiet);
  }

  std::string path_of(char letter) const { return folder_.path(std::string(1, letter)); }

  void write_items(char letter, unsigned long generation) const {
    std::string text = "[s]\n";
    for (char item = '0'; item < '8'; ++item) {
      text += item + ("=" + value_of(letter, generation)) + "\n";
    }
    std::rename(folder_.write_file(std::string("new_") + letter, text).c_str(), path_of(letter).c_str());
  }

  // From one file, or whichever has it. What a thread sees of a file never gets older.
  void read(char item, char letter = '\0') {
    thread_local unsigned long newest[256];
    char value[256] = "";
    const char name[] = {item, '\0'};
    if ((letter == '\0' ? kesa_cfg_getItemValue("s", name, value, sizeof value)
                        : kesa_cfg_getItemValue_ex(path_of(letter).c_str(), "s", name, value, sizeof value)) == 0) {
      const unsigned long generation = std::strtoul(value + 2, nullptr, 10);
      unsigned long& last = newest[static_cast<unsigned char>(value[0])];
      wrong += value != value_of(value[0], generation) || (letter != '\0' && value[0] != letter) || generation < last;
      last = generation;
      ++found;
    }
  }

  // Three threads work as long as there is a thread that goes through its rounds, one for each letter.
  template <typename Work, typename Round>
  void run(const std::string& letters, Work work, Round round) {
    std::atomic<size_t> busy{letters.size()};
    std::vector<std::jthread> threads;
    for (unsigned thread = 0; thread < 3; ++thread) {
      threads.emplace_back([&, thread] {
        for (unsigned i = thread; busy > 0; ++i) {
          work(thread, i);
          i % 4 == 0 ? sched_yield() : 0;  // writers have no priority
        }
      });
    }
    for (const char letter : letters) {
      threads.emplace_back([&, letter, end = std::time(nullptr) + 2] {
        for (unsigned long i = 0; i < 20 || std::time(nullptr) < end; ++i) {
          write_items(letter, i);
          wrong += kesa_cfg_init(path_of(letter).c_str()) != 0;
          round(letter, i);
        }
        --busy;
      });
    }
    threads.clear();  // joins them
    EXPECT_GT(found, 0u);
    EXPECT_EQ(wrong, 0u);
    kesa_cfg_destroy();
    EXPECT_EQ(g_stCfgRwlock, 0u);
  }

  const TempFolder folder_;
  std::atomic<uint64_t> found{0}, wrong{0};
};

}  // namespace

TEST_F(CfgStress, ReadersWhileFilesComeAndGo) {
  const auto read_items = [&](unsigned, unsigned i) { read(static_cast<char>('0' + i / 3 % 8), "\0ab"[i % 3]); };
  run("ab", read_items, [&](char letter, unsigned long i) {
    for (unsigned long references = i % 3; references > 0; --references) {
      kesa_cfg_destroy_ex(path_of(letter).c_str());
    }
  });
}

// Values change, and the whole store goes, while they are read.
TEST_F(CfgStress, SettersAndTheEndOfAll) {
  std::atomic<uint64_t> set{0};
  const auto set_and_read = [&](unsigned thread, unsigned i) {
    const char letter = "xyz"[thread];  // each has one setter, so its values never get older
    set += kesa_cfg_setItemValue("s", "7", value_of(letter, i).c_str()) == 0;
    read('7');
  };
  run("a", set_and_read, [](char, unsigned long) { sched_yield(), kesa_cfg_destroy(); });
  EXPECT_GT(set, 0u);
}

TEST(CfgFaults, LoadReloadSetAndRead) {
  const TempFolder folder;
  const std::string file = folder.path("a");
  const char* const path = file.c_str();
  const auto write = [&](const std::string& v) {
    folder.write_file("a", "[s]\na=" + v + "\nb=" + v + "\n[t]\na=" + v + "\n");
  };
  const auto load = [path] { return long{kesa_cfg_init(path)}; };
  const auto read = [path] {
    KesaCfgItemRecord record;
    const long result = kesa_cfg_getItemFromFile(path, "t", "a", &record);
    return result != 0 ? result : std::strcmp(record.value, "2");
  };
  const struct {
    std::function<long()> run;
    std::string before, after;  // the three items' values, "-" where there is none
  } rows[] = {{load, "---", "222"},
              {load, "111", "222"},
              {read, "111", "111"},
              {[path] { return long{kesa_cfg_setItemValue_ex(path, "t", "a", "n")}; }, "111", "11n"},
              {[] { return long{kesa_cfg_setItemValue("t", "a", "n")}; }, "111", "11n"}};
  for (const auto& row : rows) {
    const auto prepare = [&] { write("1"), row.before == "111" ? load() : 0, write("2"); };
    sweep({.prepare = prepare, .run = row.run, .check = [&](long result, const Fault& fault, const LogCapture& log) {
             std::string all, expected = result == 0 ? row.after : row.before;
             for (const auto& [section, item] : {std::pair{"s", "a"}, {"s", "b"}, {"t", "a"}}) {
               char value[8];
               const bool is_there = kesa_cfg_getItemValue(section, item, value, sizeof value) == 0;
               if (!is_there && fault.happened && result == 0) {
                 expected[all.size()] = '-';  // refused, for the fault
               }
               all += is_there ? value : "-";
             }
             EXPECT_EQ(all, expected) << log;
             EXPECT_TRUE(result == 0 || fault.happened) << log;
             EXPECT_EQ(g_stCfgRwlock, 0u);
             kesa_cfg_destroy();
           }});
  }
}
