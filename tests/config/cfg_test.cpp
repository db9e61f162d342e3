#include "tirn/cfg.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <random>
#include <semaphore>
#include <thread>

#include "fuzz/cfg_fuzz.cpp"
#include "support/child_process.h"
#include "support/faults.h"
#include "support/printed.h"
#include "support/random_seed.h"
#include "support/temp_folder.h"
#include "tirn/lock.h"
#include "tirn/mem.h"

using namespace tirn::test;

namespace {

std::string value_of(const char* section, const char* item, const char* file = nullptr) {
  char value[256];
  const int result = file == nullptr ? kesa_cfg_getItemValue(section, item, value, sizeof value)
                                     : kesa_cfg_getItemValue_ex(file, section, item, value, sizeof value);
  return result == 0 ? value : "(none)";
}

std::string items_of(const std::string& text) {
  const Source source(text, false);
  Items found{};
  EXPECT_EQ(kesa_cfg_ini_fd_parse(source.fd, nullptr, collect, &found), 0);
  return found.text;
}

}  // namespace

TEST(CfgParser, Lines) {
  LogCapture log;
  const std::string n63(63, 'n'), n64(64, 'n'), longest(4194303, 'v');
  const struct {
    std::string text, items;
    const char* logged = nullptr;
  } rows[] = {
      {"a = b = c \n =x\n=x\na=\na=1\na=2", "NULL.a=b = c\nNULL.=x\nNULL.a=\nNULL.a=1\nNULL.a=2\n"},
      {"[s]\n[ t\t]\na=1\n[]\na=2\n", "t.a=1\n.a=2\n"},
      {" [s]\n;a=1\n ;b=1\n#c=1\nd-e=1\nf.g=1\nno\n  \n\nh=1 ; i\n", "NULL.h=1 ; i\n"},
      {"[a.b]\n[a.b]=1\n[s] ; c\nx=1\n", "NULL.x=1\n"},
      {"a=1\r2\r\n[s\r]\r\nb=3\r", "NULL.a=12\ns.b=3\n"},
      {"[" + n63 + "]\nx=1\n[" + n64 + "]\nx=2\n", n63 + ".x=1\n" + n63 + ".x=2\n"},
      {n64 + "=1\n" + n63 + " =" + longest + "\nb=2", "NULL." + n63 + "=" + longest + "\nNULL.b=2\n"},
      // The second text line spans two of the reader's blocks of 16384 bytes; the NUL in its name makes it invalid.
      {";" + std::string(16379, 'x') + "\nb" + std::string(1, '\0') + "c=2\n", ""},
      {"a=v" + longest + "\nb=2\n", "NULL.b=2\n", "copy item (a=v*"},
      // A text line that is longer than the buffer is read in pieces. In the first row, the first piece is too long
      // to be trimmed and is skipped. In the second row, the carriage returns do not count towards the first piece.
      {std::string(4194369, 'x') + "y=1\n", "NULL.y=1\n", "The length (4194369) of string (xxx*"},
      {std::string(4194360, '\r') + " =" + longest + std::string(64, ' ') + "y=1\nz=2\n",
       "NULL.=" + longest + "\nNULL.y=1\nNULL.z=2\n"},
  };
  for (const auto& row : rows) {
    EXPECT_TRUE(items_of(row.text) == row.items) << row.text.substr(0, 80);
    EXPECT_TRUE(row.logged == nullptr || log.count(row.logged) == 1) << row.logged;
  }
}

TEST(CfgParser, AgreesWithThePlainOne) {
  std::mt19937 random(random_seed());
  const char* const pieces[] = {"a",  "b_1", "=",  "=",  "[",    "]", "[s]\n", " ",
                                "\t", "\r",  "\n", "\n", "\r\n", ";", "#",     "x=1\n"};
  for (int i = 0; i < 1000; ++i) {
    std::string text(1, static_cast<char>(random() % 256));
    for (unsigned length = random() % 60; length > 0; --length) {
      text += pieces[random() % std::size(pieces)];
      text.append(random() % 100 == 0 ? random() % 1200 : 0, "yz= \r\0"[random() % 6]);
    }
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(text.data()), text.size());
  }
}

// A thread may end in its callback, by itself or by a cancellation. The file, the buffer and the node are released.
TEST(CfgParser, CallbackEndsItsThread) {
  static const Source source("a=1\nb=2\n", false);
  const kesa_cfg_item_fn exits = [](auto...) -> int32_t { pthread_exit(nullptr); };
  const kesa_cfg_item_fn is_cancelled = [](auto...) {
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    return pthread_cancel(pthread_self()), pthread_testcancel(), int32_t{0};
  };
  for (const kesa_cfg_item_fn end : {exits, is_cancelled}) {
    const auto check = [](long result, auto&&...) {
      EXPECT_NE(result, 1);  // the call did not return
      EXPECT_EQ(lseek(source.fd, 0, SEEK_CUR), 4);
    };
    sweep({.prepare = [] { lseek(source.fd, 0, SEEK_SET); },
           .run = [end] { return kesa_cfg_ini_fd_parse(source.fd, nullptr, end, nullptr), 1L; },
           .check = check,
           .kinds = kCancellations});
    const std::string path = "/proc/self/fd/" + std::to_string(source.fd);
    sweep({.run = [=] { return kesa_cfg_ini_file_parse(path.c_str(), end, nullptr) != nullptr; },
           .kinds = kCancellations});
  }
}

// Items and sections are repeated, in sections of many sizes. The last value of each item counts.
TEST(CfgStore, LastValueOfManyNames) {
  const TempFolder folder;
  std::mt19937 random(random_seed());
  const std::string before = printed(kesa_mem_show);
  for (unsigned most = 1; most < 60; ++most) {
    std::map<std::pair<std::string, std::string>, std::string> last;
    std::string text, section = "NULL";
    for (unsigned i = 0; i < 300; ++i) {
      if (random() % 20 == 0) {
        text += "[" + (section = std::string(1, "abcd"[random() % 4])) + "]\n";
      }
      const std::string name = std::to_string(random() % most), value = std::to_string(i);
      text += name + "=" + value + "\n";
      last[{section, name}] = value;
    }
    ASSERT_EQ(kesa_cfg_init(folder.write_file("a", text).c_str()), 0);
    for (const auto& [item, value] : last) {
      EXPECT_EQ(value_of(item.first.c_str(), item.second.c_str()), value) << text;
    }
    kesa_cfg_destroy();
  }
  EXPECT_EQ(printed(kesa_mem_show), before);
}

TEST(CfgStore, SearchOrderReferencesAndReload) {
  LogCapture log;
  const TempFolder folder;
  const std::string one = folder.write_file("one", "[s]\na=1\nb=1\na=3\n");
  const std::string two = folder.write_file("two", "[s]\na=2\n[t]\n");
  const std::string before = printed(kesa_mem_show);
  EXPECT_EQ(kesa_cfg_destroy_ex(nullptr), 0);
  ASSERT_EQ(kesa_cfg_init(one.c_str()), 0);
  ASSERT_EQ(kesa_cfg_init(two.c_str()), 0);
  EXPECT_EQ(value_of("s", "a"), "2");
  EXPECT_EQ(value_of("s", "b"), "1");
  EXPECT_EQ(value_of("s", "a", one.c_str()), "3");
  EXPECT_EQ(value_of("s", "b", two.c_str()), "(none)");
  folder.write_file("one", "[s]\na=4\n");
  ASSERT_EQ(kesa_cfg_init(one.c_str()), 0);
  for (int i = 0; i < 10; ++i) {  // the file that was read last is searched first
    EXPECT_EQ(value_of("s", "a"), "4");
    EXPECT_EQ(value_of("s", "b"), "(none)");
  }
  EXPECT_EQ(log.count(HURN_WARNING, "Get ItemValue by pSection s and pItemName b failed."), 3u) << log;
  EXPECT_EQ(kesa_cfg_destroy_ex(nullptr), -1);
  EXPECT_EQ(kesa_cfg_destroy_ex("other"), 0);
  for (const char* const expected : {"4", "2"}) {
    EXPECT_EQ(kesa_cfg_destroy_ex(one.c_str()), 0);
    EXPECT_EQ(value_of("s", "a"), expected);
  }
  EXPECT_EQ(kesa_cfg_init(folder.write_file("empty", "").c_str()), 0);
  EXPECT_EQ(kesa_cfg_destroy(), 0);
  EXPECT_EQ(value_of("s", "a"), "(none)");
  EXPECT_EQ(printed(kesa_mem_show), before);
}

// The program itself holds the lock of the list when it forks, and the child still holds it.
TEST(CfgStore, ForkWithTheListHeld) {
  const TempFolder folder;
  ASSERT_EQ(kesa_cfg_init(folder.write_file("a", "[s]\na=1\n").c_str()), 0);
  for (auto* const lock : {kesa_rwlock_read_lock, kesa_rwlock_write_lock}) {
    lock(&g_stCfgRwlock);
    const auto unlock = lock == kesa_rwlock_read_lock ? kesa_rwlock_read_unlock : kesa_rwlock_write_unlock;
    const auto go_on = [&] {
      return unlock(&g_stCfgRwlock), value_of("s", "a") == "1" && g_stCfgRwlock == 0 ? 0 : 1;
    };
    EXPECT_TRUE(run_child(go_on).exited());
    EXPECT_EQ(go_on(), 0);
  }
}

// A thread forks inside the store while another thread is there too. This runs natively only: the emulator loses
// locks of its own in the child of a threaded process.
TEST(CfgStoreNative, ForkInsideBesideAReader) {
  TIRN_NEEDS_FORKS();
  const TempFolder folder;
  const std::string file = folder.write_file("a", "[s]\na=1\n");
  ASSERT_EQ(kesa_cfg_init(file.c_str()), 0);
  static std::binary_semaphore is_inside{0}, may_leave{0};
  static pid_t child;
  static thread_local bool forks;
  const hurn_content_record callback{HURN_CALLBACK_ONLY, [](const hurn_line*) {
                                       forks ? child = fork() : (is_inside.release(), may_leave.acquire(), 0);
                                     }};
  hurn_register_content_callback(&callback);
  const auto read = [&](bool is_by_name) {  // too little room, so that an error is logged inside
    char value[1];
    is_by_name ? kesa_cfg_getItemValue_ex(file.c_str(), "s", "a", value, 1)
               : kesa_cfg_getItemValue("s", "a", value, 1);
  };
  for (const bool is_by_name : {false, true}) {
    const std::jthread reader(read, true);
    is_inside.acquire();
    forks = true;
    read(is_by_name);
    if (child == 0) {
      alarm(20);
      _exit(kesa_cfg_setItemValue("s", "a", "2") + kesa_cfg_setItemValue_ex(file.c_str(), "s", "a", "2"));
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    forks = false;
    may_leave.release();
  }
}

TEST(CfgStore, ReadsSetsAndRefusals) {
  LogCapture log;
  const TempFolder folder;
  const std::string before = printed(kesa_mem_show), b256(256, 'b'), c255(255, 'c');
  const std::string file = folder.write_file("a", "[s]\na=12345\nb=" + b256 + "\na=6\nc=" + c255 + "\n");
  const char* const path = file.c_str();
  ASSERT_EQ(kesa_cfg_init(path), 0);
  EXPECT_EQ(kesa_cfg_setItemValue("s", "a", "54321"), 0);
  char value[8] = "before";
  KesaCfgItemRecord record;
  const struct {
    int result;
    const char* text;
    int expected = -1;
  } rows[] = {
      {kesa_cfg_init(b256.substr(1).c_str()), "Open file (bbb*) failed, fd -1 errno 2"},
      {kesa_cfg_init(b256.c_str()), "File name length too long."},
      {kesa_cfg_getItemFromFile(path, "s", "b", &record), "Copy item (b=bb*) fail."},
      {kesa_cfg_getItemValue("s", "a", value, 0), "Invalid * or size in getItemValue."},
      {kesa_cfg_getItemValue("s", "a", value, 5), "Invalid Buffer size, inputSize(5), actualSize(6).",
       KESA_CFG_BUFFER_TOO_SMALL},
      {kesa_cfg_getItemValue_ex(path, "s", "a", value, 2), "Invalid Buffer size, inputSize(2), *(6).",
       KESA_CFG_BUFFER_TOO_SMALL},
      {kesa_cfg_setItemValue_ex(path, "s", "z", "1"), "Can not find item (z) in file (/*)."},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.result, row.expected) << row.text;
    EXPECT_EQ(log.count(row.text), 1u) << row.text << log;
  }
  EXPECT_STREQ(value, "before");
  EXPECT_EQ(kesa_cfg_getItemValue("s", "a", nullptr, 6), -1);
  EXPECT_EQ(kesa_cfg_getItemValue_ex(path, "s", "a", value, 6), 0);
  EXPECT_STREQ(value, "54321");
  EXPECT_EQ(kesa_cfg_setItemValue_ex(path, "s", "a", ""), 0);
  EXPECT_EQ(value_of("s", "a"), "");
  for (const auto& [item, first] : {std::pair{"a", std::string("12345")}, {"c", c255}}) {  // in the file itself
    EXPECT_EQ(kesa_cfg_getItemFromFile(path, "s", item, &record), 0);
    EXPECT_EQ(record.value, first);
  }
  kesa_cfg_destroy();
  EXPECT_EQ(printed(kesa_mem_show), before);
}

TEST(CfgTree, Editors) {
  const std::string before = printed(kesa_mem_show);
  kesa_cfg_file_node* const file = kesa_cfg_ini_file_parse("/dev/null", collect, nullptr);
  ASSERT_NE(file, nullptr);
  // Checks a result, and that `first` is the tree's first item afterwards.
  const auto expect = [&](int result, const std::string& first, int expected = 0) {
    EXPECT_EQ(result, expected) << first;
    const auto* const section = reinterpret_cast<kesa_cfg_section_node*>(file->sections.next);
    const auto* const item = reinterpret_cast<kesa_cfg_item_node*>(section->items.next);
    EXPECT_EQ(std::string(section->sectionName) + "." + item->itemName + "=" + item->itemValue, first);
  };
  expect(kesa_cfg_add_item_func(file, "t", "x", "1"), "t.x=1");
  expect(kesa_cfg_add_item_func(file, "t", "y", "2"), "t.x=1");
  expect(kesa_cfg_add_item_func(file, "u", "x", "3"), "t.x=1");
  expect(kesa_cfg_add_item_func(file, "t", "x", "4"), "t.x=1", -1);
  expect(kesa_cfg_add_item_func(file, "t", "w", nullptr), "t.x=1", -1);
  expect(kesa_cfg_set_item_func(file, "t", "x", "5"), "t.x=5");
  expect(kesa_cfg_set_item_func(file, "t", "z", "5"), "t.x=5", -1);
  expect(kesa_cfg_del_item_func(file, "t", "z", ""), "t.x=5", -1);
  expect(kesa_cfg_del_item_func(file, "t", "x", ""), "t.y=2");
  expect(kesa_cfg_del_item_func(file, "t", "y", ""), "u.x=3");  // the section is deleted with its last item
  expect(kesa_cfg_del_section_func(file, "t", "", ""), "u.x=3", -1);
  EXPECT_EQ(kesa_cfg_del_section_func(file, "u", "", ""), 0);
  EXPECT_EQ(file->sections.next, &file->sections);
  EXPECT_EQ(file->rwlock, 0u);
  kesa_free(file);
  EXPECT_EQ(printed(kesa_mem_show), before);
}

namespace {

enum Request : unsigned long { kNone, kGetItem = 256, kSetItem, kReload };

// The library's last request to the control file, and the answer that it gets.
struct {
  unsigned long request = kNone;
  uint32_t output_length = 0;
  std::string input, value;
  int error = 0;  // 0: success; ENOENT: there is no control file
} control;

int open_control(const char* path, int flags, ...) {
  EXPECT_STREQ(path, "/proc/zut/syscall");
  EXPECT_EQ(flags, O_RDWR | O_CLOEXEC);
  return open(control.error == ENOENT ? "/nowhere/a" : "/dev/null", O_RDWR);
}

int answer(int, unsigned long request, const uint64_t* argument) {
  control.request = request;
  if (argument != nullptr) {
    control.output_length = static_cast<uint32_t>(argument[0] >> 32);
    control.input.assign(reinterpret_cast<const char*>(argument[2]), argument[0] & UINT32_MAX);
    control.value.copy(reinterpret_cast<char*>(argument[3]) + 33, argument[3] == 0 ? 0 : 257);
  }
  errno = control.error;
  return control.error == 0 ? 0 : -1;
}

class KernelItems : public testing::Test {
 protected:
  KernelItems() {
    imports_.redirect("open", open_control);
    imports_.redirect("ioctl", answer);
  }
  void expect(int result, const std::string& text) const {
    EXPECT_EQ(result, -1) << text;
    EXPECT_EQ(log_.count(HURN_ERROR, text), 1u) << text << log_;
  }
  Imports imports_{Object::library};
  LogCapture log_;
};

std::string padded(std::string text, size_t size) { return text.append(size - text.size(), '\0'); }

}  // namespace

TEST_F(KernelItems, RecordsOnTheWire) {
  const std::string section(34, 's'), name(32, 'n'), longest(256, 'v');
  char value[300];
  for (const auto& [text, size] : {std::pair{longest + '\0', 257}, {longest + 'v', 258}}) {  // no NUL in the second
    control.value = text;
    EXPECT_EQ(kesa_cst_getItem(section.c_str(), name.c_str(), value, static_cast<uint64_t>(size)), 0);
    EXPECT_EQ(value, text.substr(0, static_cast<size_t>(size) - 1));
    EXPECT_EQ(control.request, kGetItem);
    EXPECT_EQ(control.output_length, 290u);
    EXPECT_EQ(control.input, padded(section, 35) + padded(name, 33) + padded("", 257));
    EXPECT_EQ(kesa_cst_getItem("s", "n", value, static_cast<uint64_t>(size) - 1), -1);
    EXPECT_STREQ(value, "");
  }
  EXPECT_EQ(kesa_cst_setItem("s", "n", longest.c_str()), 0);
  EXPECT_EQ(control.request, kSetItem);
  EXPECT_EQ(control.output_length, 0u);
  EXPECT_EQ(control.input, padded("s", 35) + padded("n", 33) + padded(longest, 257));
  EXPECT_EQ(kesa_cst_reloadConfig(), 0);
  EXPECT_EQ(control.request, kReload);
  EXPECT_TRUE(log_.texts().empty()) << log_;
}

TEST_F(KernelItems, RefusedAndFailing) {
  char value[300];
  expect(kesa_cst_getItem(std::string(35, 's').c_str(), "n", value, 300), "Copy section name fail, s*");
  expect(kesa_cst_setItem("s", std::string(33, 'n').c_str(), "v"), "Copy item name fail, n*");
  expect(kesa_cst_setItem("s", "n", std::string(257, 'v').c_str()), "Copy item value fail, v*");
  EXPECT_EQ(control.request, kNone);
  for (const auto& [error, text] : {std::pair{EIO, "Ioctl *, errno 5"}, {EPERM, "?"}, {ENOENT, "Open *, errno 2"}}) {
    log_.clear();
    control.error = error;
    expect(kesa_cst_getItem("s", "n", value, 300), "Get item failed, section(s) item name(n), cmd(256).");
    expect(kesa_cst_setItem("s", "n", "v"), "Set item failed, section(s) itemName(n) itemValue(v)");
    expect(kesa_cst_reloadConfig(), "Reload config fail");
    EXPECT_EQ(log_.texts().size(), error == EPERM ? 3u : 6u) << log_;
    EXPECT_EQ(log_.count(text), error == EPERM ? 0u : 3u) << log_;
  }
}
