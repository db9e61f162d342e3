#include "tirn/cfg.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <random>

#include "fuzz/cfg_fuzz.cpp"
#include "support/log_capture.h"
#include "support/temp_folder.h"
#include "tirn/mem.h"

using namespace tirn::test;

namespace {

std::string value_of(const char* section, const char* item) {
  char value[256];
  return kesa_cfg_getItemValue(section, item, value, sizeof value) == 0 ? value : "(none)";
}

std::string value_in(const std::string& file, const char* section, const char* item) {
  char value[256];
  return kesa_cfg_getItemValue_ex(file.c_str(), section, item, value, sizeof value) == 0 ? value : "(none)";
}

// The items that are read from a text, "section.name=value" each.
std::string items_of(const std::string& text) {
  const TempFolder folder;
  const int fd = open(folder.write_file("a.ini", text).c_str(), O_RDONLY);
  Collected found{{}, 0};
  EXPECT_EQ(kesa_cfg_ini_fd_parse(fd, nullptr, collect, &found), 0);
  close(fd);
  std::string all;
  for (const Item& item : found.items) {
    all += item.section + "." + item.name + "=" + item.value + "|";
  }
  return all;
}

}  // namespace

TEST(CfgParser, Lines) {
  const std::string n63(63, 'n');
  const std::string n64(64, 'n');
  const struct {
    std::string text, items;
  } rows[] = {
      {"", ""},
      {"a=1", "NULL.a=1|"},
      {"a = b = c \n", "NULL.a=b = c|"},
      {" =x\n=x\n", "NULL.=x|"},
      {"a=\n", "NULL.a=|"},
      {"[s]\n[ t\t]\na=1\n[]\na=2\n", "t.a=1|.a=2|"},
      {" [s]\n;a=1\n ;b=1\n#c=1\nd-e=1\nf.g=1\nno\n  \n\nh=1 ; i\n", "NULL.h=1 ; i|"},
      {"[a.b]\n[a.b]=1\n[s] ; c\nx=1\n", "NULL.x=1|"},
      {"a=1\r2\r\n[s\r]\r\nb=3\r", "NULL.a=12|s.b=3|"},
      {"a=1\na=2\n", "NULL.a=1|NULL.a=2|"},
      {"[" + n63 + "]\nx=1\n[" + n64 + "]\nx=2\n", n63 + ".x=1|" + n63 + ".x=2|"},
      {n64 + "=1\n" + n63 + "=2\n", "NULL." + n63 + "=2|"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(items_of(row.text), row.items) << row.text;
  }
}

TEST(CfgParser, LongestLines) {
  LogCapture log;
  const std::string longest(4194303, 'v');
  EXPECT_EQ(items_of("a=" + longest + "\nb=2"), "NULL.a=" + longest + "|NULL.b=2|");
  EXPECT_TRUE(log.texts().empty()) << log.texts()[0].substr(0, 200);
  EXPECT_EQ(items_of("a=v" + longest + "\nb=2\n"), "NULL.b=2|");
  EXPECT_TRUE(log.has(HURN_ERROR, "kesa_cfg_parse_item", "copy item (a=v*"));
  // Pieces: one that is too long to be trimmed, then the rest of the line, returns left out of the count.
  EXPECT_EQ(items_of(std::string(4194369, 'x') + "y=1\n"), "NULL.y=1|");
  EXPECT_TRUE(log.has(HURN_DEBUG, "kesa_cfg_trim_string", "The length (4194369) of string (xxx*"));
  EXPECT_EQ(items_of(std::string(4194360, '\r') + " =" + longest + std::string(64, ' ') + "y=1\nz=2\n"),
            "NULL.=" + longest + "|NULL.y=1|NULL.z=2|");
}

TEST(CfgParser, AgreesWithThePlainOne) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const char* const pieces[] = {"a",  "b_1", "=",  "=",  "[",    "]", "[s]\n", " ",
                                "\t", "\r",  "\n", "\n", "\r\n", ";", "#",     "x=1\n"};
  for (int i = 0; i < 300; ++i) {
    std::string text(1, static_cast<char>(random() % 4));
    for (unsigned length = random() % 60; length > 0; --length) {
      text += pieces[random() % std::size(pieces)];
      text.append(random() % 100 == 0 ? random() % 1200 : 0, "yz= \r\0"[random() % 6]);
    }
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(text.data()), text.size());
  }
}

TEST(CfgParser, SmallFileTouchesLittleMemory) {
  const TempFolder folder;
  std::string text;
  for (int i = 0; i < 100; ++i) {
    text += "item_" + std::to_string(i) + " = some value\n";
  }
  const std::string file = folder.write_file("a.ini", text);
  KesaCfgItemRecord record;
  const auto faults = [] {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt;
  };
  kesa_cfg_getItemFromFile(file.c_str(), "NULL", "item_99", &record);
  const long before = faults();
  EXPECT_EQ(kesa_cfg_getItemFromFile(file.c_str(), "NULL", "item_99", &record), 0);
  EXPECT_LT(faults() - before, 1000);  // of the 2048 pages that both buffers have; sanitizers add some
}

TEST(CfgStore, SearchOrderReferencesAndReload) {
  const TempFolder folder;
  const std::string one = folder.write_file("one", "[s]\na=1\nb=1\na=3\n");
  const std::string two = folder.write_file("two", "[s]\na=2\n[t]\n");
  EXPECT_EQ(kesa_cfg_destroy_ex(nullptr), 0);
  ASSERT_EQ(kesa_cfg_init(one.c_str()), 0);
  EXPECT_EQ(kesa_cfg_destroy_ex(nullptr), -1);
  EXPECT_EQ(value_of("s", "a"), "3");
  ASSERT_EQ(kesa_cfg_init(two.c_str()), 0);
  EXPECT_EQ(value_of("s", "a"), "2");
  EXPECT_EQ(value_of("s", "b"), "1");
  EXPECT_EQ(value_in(one, "s", "a"), "3");
  EXPECT_EQ(value_in(two, "s", "b"), "(none)");
  folder.write_file("one", "[s]\na=4\n");
  ASSERT_EQ(kesa_cfg_init(one.c_str()), 0);
  EXPECT_EQ(value_of("s", "a"), "4");  // the file that was read last stands first
  EXPECT_EQ(value_of("s", "b"), "(none)");
  EXPECT_EQ(kesa_cfg_destroy_ex(one.c_str()), 0);
  EXPECT_EQ(value_of("s", "a"), "4");
  EXPECT_EQ(kesa_cfg_destroy_ex(one.c_str()), 0);
  EXPECT_EQ(value_of("s", "a"), "2");
  EXPECT_EQ(kesa_cfg_destroy_ex("other"), 0);
  ASSERT_EQ(kesa_cfg_init(two.c_str()), 0);
  EXPECT_EQ(kesa_cfg_destroy(), 0);
  EXPECT_EQ(value_of("s", "a"), "(none)");
}

TEST(CfgStore, ReadsAndSets) {
  LogCapture log;
  const TempFolder folder;
  const std::string file =
      folder.write_file("a", "[s]\na=12345\nb=" + std::string(256, 'b') + "\na=6\nc=" + std::string(255, 'c') + "\n");
  const char* const path = file.c_str();
  ASSERT_EQ(kesa_cfg_init(path), 0);
  EXPECT_EQ(kesa_cfg_setItemValue("s", "a", "12345"), 0);
  char value[8] = "before";
  EXPECT_EQ(kesa_cfg_getItemValue("s", "a", value, 5), -10000);
  EXPECT_EQ(kesa_cfg_getItemValue_ex(path, "s", "a", value, 5), -10000);
  EXPECT_STREQ(value, "before");
  for (const char* const function : {"kesa_cfg_getItemValue", "kesa_cfg_getItemValue_ex"}) {
    EXPECT_TRUE(log.has(HURN_ERROR, function, "Invalid Buffer size, inputSize(5), actualSize(6).")) << log;
  }
  EXPECT_EQ(kesa_cfg_getItemValue_ex(path, "s", "a", value, 6), 0);
  EXPECT_EQ(kesa_cfg_getItemValue("s", "a", nullptr, 6), -1);
  EXPECT_EQ(kesa_cfg_setItemValue_ex(path, "s", "a", ""), 0);
  EXPECT_EQ(value_of("s", "a"), "");
  EXPECT_EQ(kesa_cfg_setItemValue_ex(path, "s", "z", "1"), -1);
  EXPECT_TRUE(log.has(HURN_ERROR, "kesa_cfg_setItemValue_ex", "Can not find item (z) in file (" + file + ")."))
      << log;
  EXPECT_EQ(kesa_cfg_setItemValue_ex("other", "s", "a", "1"), -1);
  EXPECT_EQ(value_in("other", "s", "a"), "(none)");
  EXPECT_TRUE(log.has(HURN_ERROR, "kesa_cfg_getItemValue_ex", "Can not find file other.")) << log;
  log.clear();
  EXPECT_EQ(kesa_cfg_setItemValue("t", "a", "1"), -1);
  EXPECT_EQ(log.texts(), std::vector<std::string>{"Can't find section=t"});
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(value_of("s", "z"), "(none)");
  }
  EXPECT_LE(log.count(HURN_WARNING, "Get ItemValue by pSection s and pItemName z failed."), 3u) << log;
  KesaCfgItemRecord record;
  EXPECT_EQ(kesa_cfg_getItemFromFile(path, "s", "a", &record), 0);
  EXPECT_STREQ(record.value, "12345");  // of equal names the first, and from the disk
  EXPECT_EQ(kesa_cfg_getItemFromFile(path, "s", "c", &record), 0);
  EXPECT_EQ(std::strlen(record.value), 255u);
  EXPECT_EQ(kesa_cfg_getItemFromFile(path, "s", "b", &record), -1);
  EXPECT_TRUE(log.has(HURN_ERROR, "kesa_cfg_getFromFile_proc", "Copy item (b=bbb*) fail.")) << log;
  EXPECT_EQ(kesa_cfg_getItemFromFile(path, "s", "z", &record), -1);
  kesa_cfg_destroy();
}

TEST(CfgStore, FilesThatCannotBeRead) {
  LogCapture log;
  EXPECT_EQ(kesa_cfg_init("/nowhere/a"), -1);
  EXPECT_TRUE(log.has(HURN_DEBUG, "kesa_cfg_ini_file_parse", "Open file (/nowhere/a) failed, fd -1 errno 2")) << log;
  EXPECT_TRUE(log.has(HURN_DEBUG, "kesa_cfg_init_ex", "Parse config file /nowhere/a failed.")) << log;
  EXPECT_EQ(kesa_cfg_init(std::string(256, 'f').c_str()), -1);
  EXPECT_EQ(kesa_cfg_init(std::string(255, 'f').c_str()), -1);
  EXPECT_EQ(log.count(HURN_ERROR, "File name length too long."), 1u) << log;
}

TEST(CfgTree, Editors) {
  LogCapture log;
  kesa_cfg_file_node* const file = kesa_cfg_ini_file_parse(
      "/dev/null", [](auto*, auto*, auto*, void*) { return KESA_CFG_GO_ON; }, nullptr);
  ASSERT_NE(file, nullptr);
  const auto first_item = [file] {
    const auto* const section = reinterpret_cast<kesa_cfg_section_node*>(file->sections.next);
    const auto* const item = reinterpret_cast<kesa_cfg_item_node*>(section->items.next);
    return std::string(section->sectionName) + "." + item->itemName + "=" + item->itemValue;
  };
  EXPECT_EQ(kesa_cfg_add_item_func(file, "t", "x", "1"), 0);
  EXPECT_EQ(kesa_cfg_add_item_func(file, "t", "y", "2"), 0);
  EXPECT_EQ(kesa_cfg_add_item_func(file, "u", "x", "3"), 0);
  EXPECT_EQ(kesa_cfg_add_item_func(file, "t", "x", "4"), -1);
  EXPECT_TRUE(log.has(HURN_ERROR, "kesa_cfg_add_item_func", "add item fail, item(x) is already exist")) << log;
  EXPECT_EQ(kesa_cfg_set_item_func(file, "t", "x", "5"), 0);
  EXPECT_EQ(kesa_cfg_set_item_func(file, "t", "z", "5"), -1);
  EXPECT_EQ(first_item(), "t.x=5");
  EXPECT_EQ(kesa_cfg_del_item_func(file, "t", "z", nullptr), -1);
  EXPECT_EQ(kesa_cfg_del_item_func(file, "t", "x", nullptr), 0);
  EXPECT_EQ(first_item(), "t.y=2");
  EXPECT_EQ(kesa_cfg_del_item_func(file, "t", "y", nullptr), 0);
  EXPECT_EQ(first_item(), "u.x=3");  // the section went with its last item
  EXPECT_EQ(kesa_cfg_del_section_func(file, "t", nullptr, nullptr), -1);
  EXPECT_EQ(kesa_cfg_add_item_func(file, "u", std::string(64, 'n').c_str(), "1"), -1);
  EXPECT_EQ(kesa_cfg_del_section_func(file, "u", nullptr, nullptr), 0);
  EXPECT_EQ(file->sections.next, &file->sections);
  EXPECT_EQ(file->rwlock, 0u);
  kesa_free(file);
}
