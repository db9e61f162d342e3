// The store under load and without memory.
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

namespace {

class CfgStress : public testing::Test {
 protected:
  CfgStress() {  // most lines would tell of items that are not there at the moment
    const hurn_content_record quiet{HURN_CALLBACK_ONLY, [](const hurn_line*) {}};
    hurn_register_content_callback(&quiet);
  }

  std::string path_of(char letter) const { return folder_.path(std::string(1, letter)); }

  // From one file, or whichever has it. A value consists of one letter, at many lengths: a torn one shows.
  void read(char letter = '\0') {
    char value[256] = "";
    if ((letter == '\0' ? kesa_cfg_getItemValue("s", "a", value, sizeof value)
                        : kesa_cfg_getItemValue_ex(path_of(letter).c_str(), "s", "a", value, sizeof value)) == 0) {
      wrong += value != std::string(std::strlen(value), value[0]) || (letter != '\0' && value[0] != letter);
      ++found;
    }
  }

  // Three threads work as long as there is a thread that changes its file and reads it anew, one for each letter.
  template <typename Work, typename Then>
  void run(const std::string& letters, Work work, Then then) {
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
        for (unsigned i = 0; i < 20 || std::time(nullptr) < end; ++i) {
          const std::string text = "[s]\nb=1\na=" + std::string(1 + i % 99, letter) + "\n";
          std::rename(folder_.write_file(std::string("new_") + letter, text).c_str(), path_of(letter).c_str());
          wrong += kesa_cfg_init(path_of(letter).c_str()) != 0;
          then(letter, i);
        }
        --busy;
      });
    }
    threads.clear();  // joins them
    EXPECT_GT(found, 0u);
    kesa_cfg_destroy();
    EXPECT_EQ(wrong + g_stCfgRwlock, 0u);
  }

  const TempFolder folder_;
  std::atomic<uint64_t> found{0}, wrong{0};
};

}  // namespace

TEST_F(CfgStress, ReadersWhileFilesComeAndGo) {
  const auto forget = [&](char letter, unsigned i) {
    for (unsigned references = i % 3; references > 0; --references) {
      kesa_cfg_destroy_ex(path_of(letter).c_str());
    }
  };
  run(
      "ab", [&](unsigned, unsigned i) { read("\0ab"[i % 3]); }, forget);
}

// Values change, and the whole store goes, while they are read.
TEST_F(CfgStress, SettersAndTheEndOfAll) {
  std::atomic<uint64_t> set{0};
  const auto set_and_read = [&](unsigned thread, unsigned i) {
    set += kesa_cfg_setItemValue("s", "a", std::string(1 + i % 99, "xyz"[thread]).c_str()) == 0;
    read();
  };
  run("a", set_and_read, [](char, unsigned) { sched_yield(), kesa_cfg_destroy(); });
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
